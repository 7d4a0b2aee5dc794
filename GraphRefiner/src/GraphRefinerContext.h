#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace netforge::graphrefiner {

/// When a set of passes runs. The tool that drives the conversion asks for stages in the order that it needs.
enum class OptimizationStage : std::uint32_t { PreLayout = 0, PostLayout = 1, PreQuant = 2, PostQuant = 3 };

/// Granularity of the graph dumps while `dump_ir` is on.
enum class IrDumpLevel : std::uint32_t {
  PreAndPostOptimization = 0,  ///< the whole graph before and after each stage
  PostPassChange = 1,          ///< before and after each pass that changed the graph
  PostOpChange = 2,            ///< by op type, after a pass changed an op of a watched type
  Checkpoint = 3               ///< once after the post steps of each stage
};

/// How the manager calls a pass.
enum class PassRunMode : std::uint32_t {
  Once = 0,     ///< one call of `run`
  Fixpoint = 1  ///< until `run` reports no change, 51 calls at most
};

/// The passes by number. Scoped, since several pass names are also class names of this namespace.
enum class PassId : std::uint32_t {
#define NETFORGE_PASS(name, runMode) name,
#include "GraphRefiner/src/PassTable.def"
#undef NETFORGE_PASS
};
static_assert(static_cast<std::uint32_t>(PassId::MatchTopK) == 60, "61 passes, no gaps");
static_assert(static_cast<std::uint32_t>(PassId::Replace6dOps) == 14,
              "pass numbers are part of the interface");

/// What the caller wants of one `GraphRefiner`: pass selection, dumps and diagnostics. A plain value, copied
/// into everything that uses it. Fields with underscores bear the names of their Python attributes.
struct GraphRefinerContext {
  /// Pass selection; the keys "enabledPasses" and "disabledPasses" are read, all others are ignored.
  std::map<std::string, std::vector<std::string>> optimizer_config;
  std::vector<PassId> enabledPassIds;   ///< filled by `GraphRefiner` from "enabledPasses"
  std::vector<PassId> disabledPassIds;  ///< filled by `GraphRefiner` from "disabledPasses"
  bool dump_pass_trace_info = false;    ///< print the passes that changed the graph when `optimize` ends
  bool dump_ir = false;                 ///< master switch of all graph dumps
  IrDumpLevel dump_ir_level = IrDumpLevel::PreAndPostOptimization;
  std::vector<std::string> dump_ir_pass_names;  ///< if not empty, per-pass dumps are for these passes only
  std::vector<std::string> dump_ir_op_types;    ///< op types watched at `PostOpChange`
  bool debug_log = false;                       ///< announce each pass on standard output
  bool enable_trace = false;                    ///< check the trace records after each stage
};

/// "PreLayout", "PostLayout", "PreQuant" or "PostQuant". Throws std::invalid_argument for any other value.
std::string stageName(OptimizationStage stage);

/// Whether an interpreter's version text (the form of `Py_GetVersion`, "3.10.13 (main, ...") begins with
/// `wanted`
/// ("3.10") as a whole version: the next character is no digit, so "3.100" is another version. Null texts:
/// false.
bool isPythonVersion(const char* versionText, const char* wanted);

/// `isPythonVersion` with "3.10", the version that the shipped module is compiled for.
bool isSupportedPythonVersion(const char* versionText);

}  // namespace netforge::graphrefiner
