#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <string>

namespace netforge::testing {

/// Runs `action` and gives the text of the exception, which must be an `Exception`. Anything else, and no
/// exception at all, fails the test.
template <class Exception, class Action>
std::string failureOf(Action&& action) {
  try {
    action();
  } catch (const Exception& failure) {
    return failure.what();
  } catch (const std::exception& failure) {
    ADD_FAILURE() << "an exception of another type was thrown: " << failure.what();
    return "";
  }
  ADD_FAILURE() << "nothing was thrown";
  return "";
}

/// The text of the exception, or "nothing thrown", for tables that hold both.
template <class Action>
std::string messageOf(Action&& action) {
  try {
    action();
  } catch (const std::exception& failure) {
    return failure.what();
  }
  return "nothing thrown";
}

}  // namespace netforge::testing
