#pragma once

#include <string>
#include <vector>

namespace netforge::testing {

/// An Lstm and a Gru in the text form, with one size of everything but the steps.
struct RecurrentText {
  std::string x = "in x[3,2,4] f32";  // batch 2, 4 features
  std::string states = "in h0[2,5] f32\nin c0[2,5] f32";
  std::string outputs = "y, cT, hT";
  std::string attributes = "time_major=true";
  std::string name = "net";
  std::string behind = "out y\nout cT\nout hT";
  std::string places = "w_i, r_i, null, null, null, b_i";  // inputs 16 to 21

  std::string lstm() const {
    std::string text = x + "\n" + states + "\nnull null[0] f32\n";
    for (const std::string gate : {"f", "c", "o", "i"}) {
      text += "const w_" + gate + "[5,4] f32 = iota " + std::to_string(gate[0] % 7) + " 0.5\n";
      text += "const r_" + gate + "[5,5] f32 = iota " + std::to_string(gate[0] % 5) + " 0.25\n";
      text += "const b_" + gate + "[5] f32 = iota " + std::to_string(gate[0] % 3) + " 2\n";
    }
    text += name + ": " + outputs + " = Lstm(x, w_f, w_c, w_o, r_f, r_c, r_o, b_f, b_c, b_o, h0, c0, " +
            "null, null, null, null, " + places + ") hidden_size=5 " + attributes + "\n";
    return text + behind + "\n";
  }

  std::string gru() const {
    std::string text = x + "\n" + states + "\n";
    std::string operands;
    for (const std::string kind : {"w", "r", "b", "rb"}) {
      for (const std::string gate : {"z", "r", "h"}) {
        const std::string dims = kind == "w" ? "5,4" : kind == "r" ? "5,5" : "5";
        text += "const " + kind + "_" + gate + "[" + dims + "] f32 = fill 0.5\n";
        operands += ", " + kind + "_" + gate;
      }
    }
    text += name + ": " + outputs + " = Gru(x" + operands + ", h0) hidden_size=5 " + attributes + "\n";
    return text + behind + "\n";
  }
};

}  // namespace netforge::testing
