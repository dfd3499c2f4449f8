#include "marlo_deamon_log.h"

#include <atomic>

namespace marlo_deamon_log {
namespace {

// Written during start-up, read by every thread.
std::atomic<log_level> g_level{LOG_LEVEL_INFO};
std::atomic<const char*> g_tag{"MarloDaemon"};
std::atomic<bool> g_stderr_logging{false};

}  // namespace

log_level get_level() { return g_level.load(std::memory_order_relaxed); }
void set_level(log_level level) { g_level.store(level, std::memory_order_relaxed); }
const char* get_tag() { return g_tag.load(std::memory_order_relaxed); }
void set_tag(const char* tag) { g_tag.store(tag, std::memory_order_relaxed); }
bool get_stderr_logging() { return g_stderr_logging.load(std::memory_order_relaxed); }
void enable_stderr_logging() { g_stderr_logging.store(true, std::memory_order_relaxed); }

}  // namespace marlo_deamon_log
