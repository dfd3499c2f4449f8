#include "capture/recorder.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include <android/log.h>
#include <cutils/properties.h>

#include "capture/capture_limits.h"
#include "capture/current_file.h"
#include "capture/message_cut.h"
#include "capture/pcapng_writer.h"
#include "platform/os.h"
#include "platform/thread_annotations.h"
#include "platform/unique_fd.h"
#include "platform/wire_tap.h"

namespace marlo::capture {

namespace {

using platform::wire::Direction;
using platform::wire::Message;
using platform::wire::Node;

constexpr const char* kTag = "marlod_capture";
constexpr uint16_t kFirstLinkType = 147;  // LINKTYPE_USER0, the control device; the others follow
// The sequence numbers tried when a session's file name is taken already.
constexpr unsigned kMaxSequence = 9999;

enum class Level : int { Off = 0, Headers = 1, Full = 2 };

uint64_t wall_clock_us() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

struct Entry {
  uint64_t generation;
  Level level;
  uint64_t dropped_before;  // messages dropped just before this one
  Node node;
  Direction direction;
  bool has_direction;
  uint64_t timestamp_us;
  size_t original;
  std::vector<uint8_t> bytes;
  std::string comment;
};

class Recorder final : public platform::wire::Observer {
 public:
  void apply(Level level) EXCLUDES(mutex_);
  void stop() EXCLUDES(mutex_);

  void message(const Message& m) override;
  void life(Node node, Direction direction, const char* comment) override;

 private:
  void enqueue(Entry entry) EXCLUDES(mutex_);
  bool half_full() const REQUIRES(mutex_) {
    return queue_.size() >= kQueueMessages / 2 || queued_bytes_ >= kQueueBytes / 2;
  }
  void run() EXCLUDES(mutex_);
  // Writer thread only, below.
  void write_entry(const Entry& entry);
  void write_dropped(uint64_t count);
  bool write_block(const std::vector<uint8_t>& block, uint64_t messages);
  bool flush();
  bool open_file(Level level, uint64_t generation);
  // Closes the file; `sync` at the end of its session.
  void close_file(bool sync);
  void prune_ring(const std::string& keep);
  void fail(uint64_t generation) EXCLUDES(mutex_);

  std::atomic<int> level_{0};
  platform::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Entry> queue_ GUARDED_BY(mutex_);
  size_t queued_bytes_ GUARDED_BY(mutex_) = 0;
  uint64_t dropped_ GUARDED_BY(mutex_) = 0;
  uint64_t generation_ GUARDED_BY(mutex_) = 0;  // one per capture session
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::thread writer_ GUARDED_BY(mutex_);

  // The writer thread's own state.
  platform::unique_fd file_;
  uint64_t file_generation_ = 0;
  Level file_level_ = Level::Off;
  uint64_t failed_generation_ = 0;
  size_t file_bytes_ = 0;         // written to the current file
  std::vector<uint8_t> pending_;  // blocks not yet written
  uint64_t pending_messages_ = 0;
  unsigned sequence_ = 0;
  std::string stamp_;  // of the last file's name
  bool write_failed_logged_ = false;
};

void Recorder::apply(Level level) {
  bool start_writer = false;
  {
    platform::lock_guard lock(mutex_);
    if (stopping_) return;
    ++generation_;
    level_.store(static_cast<int>(level), std::memory_order_relaxed);
    start_writer = level != Level::Off && !writer_.joinable();
    if (start_writer) writer_ = std::thread([this] { run(); });
    platform::wire::observe(level == Level::Off ? nullptr : this);
  }
  if (start_writer) std::atexit(shutdown);
  wake_.notify_one();
}

void Recorder::stop() {
  std::thread writer;
  {
    platform::lock_guard lock(mutex_);
    stopping_ = true;
    level_.store(0, std::memory_order_relaxed);
    writer = std::move(writer_);
  }
  platform::wire::observe(nullptr);
  wake_.notify_one();
  if (writer.joinable()) writer.join();
}

void Recorder::message(const Message& m) {
  const auto level = static_cast<Level>(level_.load(std::memory_order_relaxed));
  if (level == Level::Off) return;
  const size_t keep = level == Level::Headers ? kept_of_headers(m) : m.length();
  Entry entry{0, level, 0, m.node, m.direction, true, wall_clock_us(), std::max(m.original, m.length()), {}, {}};
  entry.bytes.resize(keep);
  const size_t from_head = std::min(keep, m.head_length);
  if (from_head > 0) std::memcpy(entry.bytes.data(), m.head, from_head);
  if (keep > from_head) std::memcpy(entry.bytes.data() + from_head, m.rest, keep - from_head);
  enqueue(std::move(entry));
}

void Recorder::life(Node node, Direction direction, const char* comment) {
  const auto level = static_cast<Level>(level_.load(std::memory_order_relaxed));
  if (level == Level::Off) return;
  enqueue(Entry{0, level, 0, node, direction, true, wall_clock_us(), 0, {}, comment});
}

void Recorder::enqueue(Entry entry) {
  {
    platform::lock_guard lock(mutex_);
    if (stopping_ || level_.load(std::memory_order_relaxed) == 0) return;
    const size_t size = entry.bytes.size() + entry.comment.size();
    if (queue_.size() >= kQueueMessages || queued_bytes_ + size > kQueueBytes) {
      ++dropped_;
      return;
    }
    entry.generation = generation_;
    entry.dropped_before = dropped_;
    dropped_ = 0;
    queued_bytes_ += size;
    queue_.push_back(std::move(entry));
    // The writer gathers messages for a while once woken: woken by the first
    // one, and early only when the queue fills.
    if (queue_.size() > 1 && !half_full()) return;
  }
  wake_.notify_one();
}

void Recorder::run() {
  // Named, so that `top -H` and /proc show what the capture costs.
  pthread_setname_np(pthread_self(), "marlod_capture");
  for (;;) {
    std::deque<Entry> batch;
    uint64_t dropped = 0;
    uint64_t generation = 0;
    Level level = Level::Off;
    bool stopping = false;
    {
      platform::unique_lock lock(mutex_);
      // Also woken by a session that ended, or one that started and has no
      // file yet: its file is made at once, so that switching the capture on
      // shows at once.
      while (!stopping_ && queue_.empty() && dropped_ == 0 && !(file_.ok() && file_generation_ != generation_) &&
             !(level_.load(std::memory_order_relaxed) != 0 && file_generation_ != generation_ &&
               failed_generation_ != generation_)) {
        lock.wait(wake_);
      }
      // Gathers what comes within kGatherMs into one write, unless the
      // session changes or the queue fills first.
      const uint64_t seen = generation_;
      const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kGatherMs);
      while (!stopping_ && generation_ == seen && !half_full() &&
             lock.wait_until(wake_, until) == std::cv_status::no_timeout) {
      }
      batch.swap(queue_);
      queued_bytes_ = 0;
      dropped = dropped_;
      dropped_ = 0;
      generation = generation_;
      level = static_cast<Level>(level_.load(std::memory_order_relaxed));
      stopping = stopping_;
    }
    for (const Entry& entry : batch) write_entry(entry);
    // Drops after the last queued message belong where it went.
    if (dropped > 0) write_dropped(dropped);
    flush();
    if (file_.ok() && (file_generation_ != generation || stopping)) close_file(true);  // the session ended
    if (stopping) return;
    if (!file_.ok() && level != Level::Off && file_generation_ != generation) open_file(level, generation);
  }
}

void Recorder::write_entry(const Entry& entry) {
  if (!file_.ok() || file_generation_ != entry.generation) {
    close_file(true);  // its session ended
    if (entry.generation == failed_generation_ || !open_file(entry.level, entry.generation)) return;
  }
  if (entry.dropped_before > 0) write_dropped(entry.dropped_before);
  std::vector<PcapngOption> options;
  if (!entry.comment.empty()) options.push_back(text_option(kOptComment, entry.comment));
  if (entry.has_direction) options.push_back(u32_option(kEpbFlags, static_cast<uint32_t>(entry.direction)));
  const std::vector<uint8_t> block = packet_block(static_cast<uint32_t>(entry.node), entry.timestamp_us,
                                                  entry.bytes.data(), entry.bytes.size(), entry.original, options);
  if (!write_block(block, 1)) {
    platform::lock_guard lock(mutex_);
    ++dropped_;
  }
}

void Recorder::write_dropped(uint64_t count) {
  if (!file_.ok()) return;
  char comment[48];
  std::snprintf(comment, sizeof(comment), "dropped %llu messages", static_cast<unsigned long long>(count));
  const std::vector<uint8_t> block = packet_block(static_cast<uint32_t>(Node::Control), wall_clock_us(), nullptr, 0, 0,
                                                  {text_option(kOptComment, comment)});
  if (!write_block(block, 0)) {
    platform::lock_guard lock(mutex_);
    dropped_ += count;
  }
}

// Adds `block`, holding `messages` messages, to the current file's pending
// bytes, starting the next file of the ring first when it would not fit.
bool Recorder::write_block(const std::vector<uint8_t>& block, uint64_t messages) {
  if (!file_.ok()) return false;
  if (file_bytes_ + pending_.size() + block.size() > kMaxFileBytes && file_bytes_ + pending_.size() > 0) {
    // The next file of the same session, even when the session has just
    // ended and its last messages are being written.
    close_file(false);
    if (!open_file(file_level_, file_generation_)) return false;
  }
  pending_.insert(pending_.end(), block.begin(), block.end());
  pending_messages_ += messages;
  if (pending_.size() >= kQueueBytes / 2) return flush();
  return true;
}

// Writes the pending bytes. Bytes that could not all be written are taken
// back out of the file, so that it stays readable, and their messages
// counted as dropped.
bool Recorder::flush() {
  size_t done = 0;
  int err = 0;
  while (file_.ok() && done < pending_.size()) {
    const ssize_t n = platform::write(file_.get(), pending_.data() + done, pending_.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      err = n < 0 ? errno : ENOSPC;
      break;
    }
    done += static_cast<size_t>(n);
  }
  const bool written = done == pending_.size();
  if (written) {
    file_bytes_ += done;
  } else {
    if (!write_failed_logged_) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "capture: writing the capture failed, errno = %d: messages dropped",
                          err);
      write_failed_logged_ = true;
    }
    if (file_.ok() && platform::ftruncate(file_.get(), static_cast<off_t>(file_bytes_)) == 0) {
      platform::lseek(file_.get(), static_cast<off_t>(file_bytes_), SEEK_SET);
    }
    platform::lock_guard lock(mutex_);
    dropped_ += pending_messages_;
  }
  pending_.clear();
  pending_messages_ = 0;
  return written;
}

bool Recorder::open_file(Level level, uint64_t generation) {
  if (level == Level::Off || generation == failed_generation_) return false;
  const time_t start = static_cast<time_t>(wall_clock_us() / 1000000u);
  struct tm utc;
  gmtime_r(&start, &utc);
  char stamp[20];
  std::strftime(stamp, sizeof(stamp), "%Y%m%dT%H%M%SZ", &utc);
  // Sessions started in the same second go on with its sequence, so that
  // names sort in the order the files were made.
  if (stamp_ != stamp) sequence_ = 0;
  stamp_ = stamp;
  std::string name;
  int err = 0;
  while (!file_.ok() && sequence_ < kMaxSequence) {
    char base[64];
    std::snprintf(base, sizeof(base), "%s%s-%04u%s", kFilePrefix, stamp, ++sequence_, kFileSuffix);
    name = base;
    file_.reset(platform::open((std::string(kDirectory) + "/" + name).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
    err = errno;
    if (!file_.ok() && err != EEXIST) break;
  }
  if (!file_.ok()) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "capture: cannot create a capture file in %s, errno = %d: capture off until %s changes",
                        kDirectory, err, kProperty);
    fail(generation);
    return false;
  }
  file_generation_ = generation;
  file_level_ = level;
  file_bytes_ = 0;
  write_failed_logged_ = false;
  std::vector<uint8_t> header =
      section_header_block({text_option(kShbUserAppl, "marlod"),
                            text_option(kOptComment, level == Level::Headers ? "capture=headers" : "capture=full")});
  for (int i = 0; i < platform::wire::kNodes; ++i) {
    const std::vector<uint8_t> idb = interface_block(static_cast<uint16_t>(kFirstLinkType + i),
                                                     {text_option(kIfName, platform::wire::node_path(Node(i)) + 1)});
    header.insert(header.end(), idb.begin(), idb.end());
  }
  if (!write_block(header, 0) || !flush()) {
    close_file(false);
    fail(generation);
    return false;
  }
  publish_current_file(name);
  prune_ring(name);
  return true;
}

void Recorder::close_file(bool sync) {
  if (!file_.ok()) return;
  flush();
  if (sync) platform::fdatasync(file_.get());
  file_.reset();
  publish_current_file("");
}

// Removes the oldest capture files while more than the ring's count remain;
// never `keep`, the file just started.
void Recorder::prune_ring(const std::string& keep) {
  std::vector<std::string> names;
  if (DIR* dir = platform::opendir(kDirectory)) {
    while (const struct dirent* e = ::readdir(dir)) {
      const std::string name = e->d_name;
      const size_t prefix = std::strlen(kFilePrefix), suffix = std::strlen(kFileSuffix);
      if (name.size() > prefix + suffix && name.compare(0, prefix, kFilePrefix) == 0 &&
          name.compare(name.size() - suffix, suffix, kFileSuffix) == 0 && name != keep) {
        names.push_back(name);
      }
    }
    ::closedir(dir);
  }
  std::sort(names.begin(), names.end());
  for (size_t i = 0; i + kRingFiles - 1 < names.size(); ++i) {
    platform::unlink((std::string(kDirectory) + "/" + names[i]).c_str());
  }
}

// The session cannot be written: the capture stays off until the property
// changes.
void Recorder::fail(uint64_t generation) {
  failed_generation_ = generation;
  platform::lock_guard lock(mutex_);
  if (generation_ != generation) return;
  level_.store(0, std::memory_order_relaxed);
  platform::wire::observe(nullptr);
}

Recorder& recorder() {
  static Recorder* const instance = new Recorder();  // never destroyed: taps of late threads stay safe
  return *instance;
}

platform::mutex g_property_mutex;
std::string g_property_value GUARDED_BY(g_property_mutex) = "0";

}  // namespace

void poll_property() {
  char value[PROPERTY_VALUE_MAX] = {};
  property_get(kProperty, value, "0");
  platform::lock_guard lock(g_property_mutex);
  if (g_property_value == value) return;
  g_property_value = value;
  Level level = Level::Off;
  if (std::strcmp(value, "1") == 0) {
    level = Level::Headers;
  } else if (std::strcmp(value, "2") == 0) {
    level = Level::Full;
  } else if (std::strcmp(value, "0") != 0 && value[0] != '\0') {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "capture: %s is \"%s\", not 0, 1 or 2: capture off", kProperty, value);
  }
  __android_log_print(ANDROID_LOG_INFO, kTag, "capture: %s",
                      level == Level::Off       ? "off"
                      : level == Level::Headers ? "on, headers"
                                                : "on, full");
  recorder().apply(level);
}

void shutdown() { recorder().stop(); }

}  // namespace marlo::capture
