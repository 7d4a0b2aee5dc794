#include "Core/Validation/src/Operations/ValidationCommonUtil.h"

#include <chrono>
#include <cstdio>
#include <unordered_map>
#include <vector>

namespace netforge {

namespace {

/// 64-bit FNV-1a over the eight bytes of a handle, lowest first.
struct HandleHash {
  std::size_t operator()(std::uint64_t handle) const {
    std::uint64_t hash = 0xCBF29CE484222325;
    for (int shift = 0; shift < 64; shift += 8) {
      hash ^= (handle >> shift) & 0xFF;
      hash *= 0x100000001B3;
    }
    return hash;
  }
};

struct LoggerTable {
  std::mutex mutex;
  std::unordered_map<std::uint64_t, std::shared_ptr<ValidationLogger>, HandleHash> loggers;

  static LoggerTable& instance() {
    static LoggerTable table;
    return table;
  }
};

/// No lock is held meanwhile: a sink may ask for the log, or check another op.
void handToLogger(std::uint32_t level, const char* format, std::va_list args) {
  const auto logger = findValidationLogger(ValidationLog::instance().getHandle());
  if (logger == nullptr || level > logger->level || !logger->sink) return;
  const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
  const auto now =
      static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(sinceStart).count());
  logger->sink(format, level, now - logger->startTime, args);
}

std::string formatted(const char* format, std::va_list args) {
  std::va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  std::string text;
  if (length > 0) {
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, again);
    text.assign(buffer.data(), static_cast<std::size_t>(length));
  }
  va_end(again);
  return text;
}

}  // namespace

void registerValidationLogger(std::uint64_t handle, const std::shared_ptr<ValidationLogger>& logger) {
  LoggerTable& table = LoggerTable::instance();
  const std::lock_guard lock(table.mutex);
  if (logger == nullptr) {
    table.loggers.erase(handle);
  } else {
    table.loggers[handle] = logger;
  }
}

std::shared_ptr<ValidationLogger> findValidationLogger(std::uint64_t handle) {
  LoggerTable& table = LoggerTable::instance();
  const std::lock_guard lock(table.mutex);
  const auto found = table.loggers.find(handle);
  return found == table.loggers.end() ? nullptr : found->second;
}

ValidationLog& ValidationLog::instance() {
  static ValidationLog log;
  return log;
}

std::uint64_t ValidationLog::getHandle() const {
  const std::lock_guard lock(mutex);
  return logHandle;
}

void ValidationLog::setHandle(std::uint64_t handle) {
  const std::lock_guard lock(mutex);
  logHandle = handle;
}

void ValidationLog::append(const std::string& message) {
  const std::lock_guard lock(mutex);
  text += message;
}

std::string ValidationLog::getText() const {
  const std::lock_guard lock(mutex);
  return text;
}

void logValidation(std::uint32_t level, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  std::va_list again;
  va_copy(again, args);
  const std::string message = formatted(format, args);
  va_end(args);
  try {
    handToLogger(level, format, again);
  } catch (...) {
    va_end(again);
    ValidationLog::instance().append(message);
    throw;
  }
  va_end(again);
  ValidationLog::instance().append(message);
}

void announceValidation(std::uint32_t level, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  handToLogger(level, format, args);
  va_end(args);
}

std::string getValidationLogText() {
  return ValidationLog::instance().getText();
}

}  // namespace netforge
