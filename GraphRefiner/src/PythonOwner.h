#pragma once

#include <pybind11/pybind11.h>

namespace netforge {

/// Keeps a Python object alive on behalf of C++ objects that use its memory.
///
/// The last C++ reference may go on any thread, so the interpreter lock is taken for the release. What the
/// library still holds when the interpreter is gone (it frees its own statics at process end) leaves its
/// reference behind: there is no interpreter left to give it back to.
class PythonOwner {
 public:
  explicit PythonOwner(pybind11::handle owned) : object(owned.inc_ref().ptr()) {}
  PythonOwner(const PythonOwner&) = delete;
  PythonOwner& operator=(const PythonOwner&) = delete;
  ~PythonOwner() {
    if (Py_IsInitialized() == 0) return;
    const PyGILState_STATE state = PyGILState_Ensure();
    Py_DECREF(object);
    PyGILState_Release(state);
  }

 private:
  PyObject* object;
};

}  // namespace netforge
