#pragma once

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace netforge {

// The results of a check.
constexpr std::uint32_t ORLO_VALIDATION_OK = 0;
constexpr std::uint32_t ORLO_VALIDATION_FAILED = 3110;        // malformed, or an op-specific failure
constexpr std::uint32_t ORLO_VALIDATION_NO_VALIDATOR = 4005;  // nobody can check ops of this type

// Levels of messages: a logger takes those that are not above its own.
constexpr std::uint32_t ORLO_LOG_ERROR = 1;
constexpr std::uint32_t ORLO_LOG_DEBUG = 5;

/// Where messages of the checks go besides the log of the process. The sink gets them as they come: the
/// format and arguments of vprintf, the level, and the time since `startTime`.
struct ValidationLogger {
  using Sink = std::function<void(const char* format, std::uint32_t level, std::uint64_t nanoseconds,
                                  std::va_list args)>;
  Sink sink;                    // may be empty
  std::uint32_t level = 0;      // messages of a higher level don't reach the sink
  std::uint64_t startTime = 0;  // of the steady clock, nanoseconds
};

/// Enters a logger under the handle that validators name it by; null takes it out.
void registerValidationLogger(std::uint64_t handle, const std::shared_ptr<ValidationLogger>& logger);
/// Null when there is none.
std::shared_ptr<ValidationLogger> findValidationLogger(std::uint64_t handle);

/// The log of the process: every message of every check so far, in order. It is never cleared, so that the
/// reasons of one failure stand at the end, behind those of all before.
class ValidationLog {
 public:
  static ValidationLog& instance();
  /// The handle of the validator that ran last; its logger gets the messages.
  std::uint64_t getHandle() const;
  void setHandle(std::uint64_t handle);
  void append(const std::string& message);
  std::string getText() const;

 private:
  mutable std::mutex mutex;
  std::uint64_t logHandle = 0;
  std::string text;
};

/// Hands a message, in the form of printf, to the logger in force, when it takes this level, and appends it
/// to the log in any case.
[[gnu::format(printf, 2, 3)]] void logValidation(std::uint32_t level, const char* format, ...);
/// Hands it to the logger in force alone.
[[gnu::format(printf, 2, 3)]] void announceValidation(std::uint32_t level, const char* format, ...);
/// The whole log.
std::string getValidationLogText();

}  // namespace netforge
