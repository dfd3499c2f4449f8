#include "fwupdater/update_history.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "capture/current_file.h"
#include "daemon/marlo_deamon_log.h"
#include "platform/os.h"
#include "platform/read_file.h"
#include "platform/unique_fd.h"

namespace marlo::history {

namespace {

constexpr const char* kRunning = "running";
constexpr std::string_view kRunningField = "\"outcome\":\"running\"";
constexpr std::string_view kAbandonedField = "\"outcome\":\"abandoned: daemon stopped\"";

std::string bounded(std::string_view text) { return std::string(text.substr(0, kMaxTextBytes)); }

const char* kind_name(attempt_kind kind) { return kind == attempt_kind::dfu ? "dfu" : "misc-data"; }

const char* mode_name(int mode) {
  switch (mode) {
    case 0: return "HOST";
    case 1: return "FLASH";
    default: return nullptr;
  }
}

std::string utc_now() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char date[24] = {};
  std::strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &utc);
  char text[32] = {};
  std::snprintf(text, sizeof(text), "%s.%03lldZ", date, ms);
  return text;
}

std::string versions_json(const version_texts& v) {
  return "{\"apps\":" + json_string(v.apps) + ",\"dsp\":" + json_string(v.dsp) + ",\"bt\":" + json_string(v.bt) + "}";
}

// A line that can be one of the daemon's records: one JSON object of
// printable ASCII within the length bound. Anything else in the file (a
// line cut short, binary garbage) is dropped.
bool plausible_record(std::string_view line) {
  if (line.size() < 2 || line.size() > kMaxLineBytes || line.front() != '{' || line.back() != '}') return false;
  return std::all_of(line.begin(), line.end(), [](char c) { return c >= 0x20 && c <= 0x7e; });
}

bool write_whole(int fd, const std::string& text) {
  const char* at = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t n = platform::write(fd, at, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    at += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

// Temporary, write, sync, rename, sync of the directory.
void write_atomically(const std::string& text) {
  platform::unique_fd file(platform::open(kHistoryTemporary, O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600));
  if (!file.ok()) {
    MARLO_LOGE("update history: creating %s failed: %s", kHistoryTemporary, strerror(errno));
    return;
  }
  if (!write_whole(file.get(), text) || platform::fsync(file.get()) != 0 || !file.close() ||
      platform::rename(kHistoryTemporary, kHistoryFile) != 0) {
    MARLO_LOGE("update history: writing %s failed: %s", kHistoryFile, strerror(errno));
    platform::unlink(kHistoryTemporary);
    return;
  }
  platform::unique_fd dir(platform::open(kHistoryDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir.ok() || platform::fsync(dir.get()) != 0) {
    MARLO_LOGE("update history: sync of %s failed: %s", kHistoryDir, strerror(errno));
  }
}

}  // namespace

version_texts reported_versions(const wear_firmware_info_t& record) {
  auto text = [](const char* field, size_t size) { return std::string(field, strnlen(field, size)); };
  return {text(record.apps_version, sizeof(record.apps_version)), text(record.dsp_version, sizeof(record.dsp_version)),
          text(record.bt_version, sizeof(record.bt_version))};
}

std::string json_string(std::string_view text) {
  std::string out = "\"";
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c > 0x7e) {
          char escaped[8];
          std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(c));
          out += escaped;
        } else {
          out += ch;
        }
    }
  }
  return out + "\"";
}

update_history::attempt update_history::start(attempt_kind kind, attempt_facts facts) {
  attempt a;
  a.kind = kind;
  facts.why = bounded(facts.why);
  if (facts.reported) {
    for (std::string* text : {&facts.reported->apps, &facts.reported->dsp, &facts.reported->bt}) *text = bounded(*text);
  }
  for (std::string* text : {&facts.shipped.apps, &facts.shipped.dsp, &facts.shipped.bt}) *text = bounded(*text);
  a.facts = std::move(facts);
  a.start = utc_now();
  a.start_ns = platform::daemon_clock_ns();
  a.capture = bounded(capture::current_file());  // empty when the wire is not recorded
  return a;
}

std::string update_history::render(const attempt& a, const std::string& outcome, int64_t now_ns) {
  const char* mode = mode_name(a.facts.boot_mode);
  std::string line = "{\"start\":" + json_string(a.start);
  line += ",\"duration_ms\":" + std::to_string((now_ns - a.start_ns) / 1000000);
  line += ",\"kind\":" + json_string(kind_name(a.kind));
  line += ",\"boot_mode\":" + (mode != nullptr ? json_string(mode) : "null");
  line += ",\"decision\":" + json_string(a.facts.decision);
  line += ",\"why\":" + json_string(a.facts.why);
  line += ",\"reported\":" + (a.facts.reported ? versions_json(*a.facts.reported) : "null");
  line += ",\"shipped\":" + versions_json(a.facts.shipped);
  line += ",\"outcome\":" + json_string(bounded(outcome));
  line += ",\"images\":" + std::to_string(a.image_ids.size());
  line += ",\"bytes\":" + std::to_string(a.bytes);
  line += ",\"fragments\":" + std::to_string(a.fragments);
  line += ",\"resumptions\":" + std::to_string(a.resumptions);
  line += ",\"restarts\":" + std::to_string(a.restarts);
  line += ",\"hang_ups\":" + std::to_string(a.hang_ups);
  line += ",\"capture\":" + (a.capture.empty() ? "null" : json_string(a.capture));
  return line + "}";
}

std::string update_history::summary(const attempt& a, const std::string& outcome, int64_t now_ns) {
  const char* mode = mode_name(a.facts.boot_mode);
  char text[1024];
  std::snprintf(text, sizeof(text),
                "update record: %s %s (%s): %s after %lld ms, boot mode %s; %zu images, %llu bytes, %u fragments; "
                "%u resumptions, %u restarts, %u hang-ups; running apps %s, shipped apps %s; capture %s",
                kind_name(a.kind), a.facts.decision.c_str(), a.facts.why.c_str(), outcome.c_str(),
                static_cast<long long>((now_ns - a.start_ns) / 1000000), mode != nullptr ? mode : "unknown",
                a.image_ids.size(), static_cast<unsigned long long>(a.bytes), a.fragments, a.resumptions, a.restarts,
                a.hang_ups, a.facts.reported ? a.facts.reported->apps.c_str() : "unknown", a.facts.shipped.apps.c_str(),
                a.capture.empty() ? "none" : a.capture.c_str());
  return text;
}

std::string update_history::close(const attempt& a, const std::string& outcome) {
  const int64_t now = platform::daemon_clock_ns();
  ended_.push_back(render(a, outcome, now));
  return summary(a, outcome, now);
}

void update_history::begin(attempt_kind kind, attempt_facts facts) {
  std::string superseded;
  {
    platform::lock_guard lock(state_lock_);
    std::optional<attempt>& slot = open_[static_cast<int>(kind)];
    if (slot) superseded = close(*slot, "abandoned: superseded");
    slot = start(kind, std::move(facts));
  }
  if (!superseded.empty()) MARLO_LOGI("%s", superseded.c_str());
  rewrite();
}

void update_history::record(attempt_kind kind, attempt_facts facts, const std::string& outcome) {
  std::string text;
  {
    platform::lock_guard lock(state_lock_);
    text = close(start(kind, std::move(facts)), outcome);
  }
  MARLO_LOGI("%s", text.c_str());
  rewrite();
}

void update_history::finish(attempt_kind kind, const std::string& outcome) {
  std::string text;
  {
    platform::lock_guard lock(state_lock_);
    std::optional<attempt>& slot = open_[static_cast<int>(kind)];
    if (!slot) return;
    text = close(*slot, outcome);
    slot.reset();
  }
  MARLO_LOGI("%s", text.c_str());
  rewrite();
}

void update_history::served_image(attempt_kind kind, uint32_t image_id) {
  platform::lock_guard lock(state_lock_);
  std::optional<attempt>& a = open_[static_cast<int>(kind)];
  if (!a || a->image_ids.size() >= kMaxRecords) return;
  if (std::find(a->image_ids.begin(), a->image_ids.end(), image_id) == a->image_ids.end()) {
    a->image_ids.push_back(image_id);
    counted_ = true;
  }
}

void update_history::served_fragment(attempt_kind kind, uint64_t bytes) {
  platform::lock_guard lock(state_lock_);
  std::optional<attempt>& a = open_[static_cast<int>(kind)];
  if (!a) return;
  ++a->fragments;
  a->bytes += bytes;
  counted_ = true;
}

void update_history::resumed(attempt_kind kind) {
  platform::lock_guard lock(state_lock_);
  if (std::optional<attempt>& a = open_[static_cast<int>(kind)]) {
    ++a->resumptions;
    counted_ = true;
  }
}

void update_history::hung_up(attempt_kind kind) {
  platform::lock_guard lock(state_lock_);
  if (std::optional<attempt>& a = open_[static_cast<int>(kind)]) {
    ++a->hang_ups;
    counted_ = true;
  }
}

void update_history::restarted() {
  platform::lock_guard lock(state_lock_);
  for (std::optional<attempt>& a : open_) {
    if (!a) continue;
    ++a->restarts;
    counted_ = true;
  }
}

void update_history::checkpoint() {
  {
    platform::lock_guard lock(state_lock_);
    if (!counted_ || platform::daemon_clock_ns() - written_ns_ < kCheckpointSeconds * 1000000000) return;
  }
  rewrite();
}

void update_history::rewrite() {
  platform::lock_guard file(file_lock_);
  if (!loaded_) {
    lines_ = load();
    loaded_ = true;
  }
  std::vector<std::string> open_lines;
  {
    platform::lock_guard lock(state_lock_);
    for (std::string& line : ended_) lines_.push_back(std::move(line));
    ended_.clear();
    const int64_t now = platform::daemon_clock_ns();
    counted_ = false;
    written_ns_ = now;
    for (const std::optional<attempt>& a : open_) {
      if (a) open_lines.push_back(render(*a, kRunning, now));
    }
  }
  while (!lines_.empty() && lines_.size() + open_lines.size() > kMaxRecords) lines_.pop_front();
  std::string text;
  for (const std::string& line : lines_) text += line + "\n";
  for (const std::string& line : open_lines) text += line + "\n";
  write_atomically(text);
}

std::deque<std::string> update_history::load() {
  std::string text;
  platform::file_info info;
  switch (platform::read_file(kHistoryFile, kMaxFileBytes, &text, &info)) {
    case platform::read_status::read: break;
    case platform::read_status::not_opened: return {};
    case platform::read_status::too_large:
      MARLO_LOGE("update history: %s of %llu bytes is above the %llu bytes kept, its records are dropped", kHistoryFile,
                 static_cast<unsigned long long>(info.size), static_cast<unsigned long long>(kMaxFileBytes));
      return {};
  }
  std::deque<std::string> lines;
  size_t corrupt = 0;
  const std::string_view all(text);
  for (size_t begin = 0; begin < all.size();) {
    size_t end = all.find('\n', begin);
    if (end == std::string_view::npos) end = all.size();
    const std::string_view line = all.substr(begin, end - begin);
    begin = end + 1;
    if (line.empty()) continue;
    if (!plausible_record(line)) {
      ++corrupt;
      continue;
    }
    std::string kept(line);
    const size_t running = kept.find(kRunningField);
    if (running != std::string::npos) kept.replace(running, kRunningField.size(), kAbandonedField);
    lines.push_back(std::move(kept));
  }
  const size_t beyond = lines.size() > kMaxRecords ? lines.size() - kMaxRecords : 0;
  lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(beyond));
  if (corrupt != 0 || beyond != 0) {
    MARLO_LOGE("update history: %s: %zu corrupt lines and %zu lines beyond the last %zu dropped", kHistoryFile, corrupt,
               beyond, kMaxRecords);
  }
  return lines;
}

}  // namespace marlo::history
