#include "log_queue.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace platform::host {

namespace {

// A writer wakes for the first queued entry, then lets a batch gather for at
// most this long (readers of the log see an entry at most that late).
constexpr auto kGatherTime = std::chrono::milliseconds(2);
// A batch this large is written at once.
constexpr size_t kBatchBytes = 64 * 1024;
// Above this much queued the logging threads wait for the writer: the
// queue's memory stays bounded whatever the rate of entries.
constexpr size_t kMaxQueuedBytes = 512 * 1024;

// A queued entry: this header, then its tag and its text.
struct RecordHeader {
  int prio;
  int pid;
  long tid;
  struct timespec when;
  uint32_t tag_length;
  uint32_t text_length;
  bool has_tag;
};

void append_record(std::string& records, const LogEntry& entry) {
  const RecordHeader header{entry.prio,
                            entry.pid,
                            entry.tid,
                            entry.when,
                            static_cast<uint32_t>(entry.tag.size()),
                            static_cast<uint32_t>(entry.text.size()),
                            entry.has_tag};
  records.append(reinterpret_cast<const char*>(&header), sizeof(header));
  records.append(entry.tag);
  records.append(entry.text);
}

// Formats records from `at` on until about kBatchBytes of output are made;
// returns where it stopped. Each output is formed only when it is written.
size_t format_records(const std::string& records, size_t at, bool to_stderr, bool to_file, std::string& lines,
                      std::string& json) {
  while (records.size() - at >= sizeof(RecordHeader) && lines.size() + json.size() < kBatchBytes) {
    RecordHeader header;
    std::memcpy(&header, records.data() + at, sizeof(header));
    at += sizeof(header);
    LogEntry entry;
    entry.prio = header.prio;
    entry.pid = header.pid;
    entry.tid = header.tid;
    entry.when = header.when;
    entry.has_tag = header.has_tag;
    entry.tag = std::string_view(records.data() + at, header.tag_length);
    at += header.tag_length;
    entry.text = std::string_view(records.data() + at, header.text_length);
    at += header.text_length;
    if (to_stderr) append_threadtime_lines(lines, entry);
    if (to_file) append_json_object(json, entry);
  }
  return at;
}

void write_all(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// True when stderr is /dev/null: its lines would be thrown away unread.
// Either the same device, or the very same file: some sandboxes make
// /dev/null a file that swallows what is written to it.
bool stderr_discarded() {
  struct NullFile {
    bool known = false;
    struct stat st {};
  };
  static const NullFile null_file = [] {
    NullFile file;
    file.known = ::stat("/dev/null", &file.st) == 0;
    return file;
  }();
  struct stat err_stat;
  if (!null_file.known || ::fstat(STDERR_FILENO, &err_stat) != 0) return false;
  if (S_ISCHR(err_stat.st_mode) && S_ISCHR(null_file.st.st_mode)) return err_stat.st_rdev == null_file.st.st_rdev;
  return err_stat.st_dev == null_file.st.st_dev && err_stat.st_ino == null_file.st.st_ino;
}

class LogQueue {
 public:
  // Never destroyed: threads may log while the process exits.
  static LogQueue& instance() {
    static LogQueue* const queue = new LogQueue();
    return *queue;
  }

  void add(const LogEntry& entry, std::string_view file_path, bool urgent) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (file_path != file_path_) {
      // What is queued belongs to the current file: written and closed
      // before another one takes its place.
      lock.unlock();
      std::lock_guard<std::mutex> io(io_mutex_);
      lock.lock();
      if (file_path != file_path_) {
        drain(lock);
        if (file_fd_ >= 0) ::close(file_fd_);
        file_path_ = std::string(file_path);
        file_fd_ =
            file_path_.empty() ? -1 : ::open(file_path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
      }
    }
    const size_t before = queued_bytes();
    append_record(records_, entry);
    if (urgent || exiting_ || !writer_running()) {
      lock.unlock();
      std::lock_guard<std::mutex> io(io_mutex_);
      lock.lock();
      drain(lock);
      return;
    }
    // The writer is woken for the first entry and once more when a full
    // batch has gathered, not again for every later entry.
    if (before == 0 || (before < kBatchBytes && queued_bytes() >= kBatchBytes)) queued_.notify_one();
    room_.wait(lock, [this] { return queued_bytes() <= kMaxQueuedBytes || !writer_running(); });
  }

  void flush() {
    std::lock_guard<std::mutex> io(io_mutex_);
    std::unique_lock<std::mutex> lock(mutex_);
    drain(lock);
  }

 private:
  LogQueue() = default;

  size_t queued_bytes() const { return records_.size(); }

  // Starts the writer thread on first use; false in a forked child or at
  // exit, where entries are written by the logging thread. Caller holds
  // mutex_.
  bool writer_running() {
    if (forked_child_ || exiting_) return false;
    if (!writer_started_) {
      writer_started_ = true;
      ::pthread_atfork(&LogQueue::before_fork, &LogQueue::after_fork_parent, &LogQueue::after_fork_child);
      std::atexit(&LogQueue::at_exit);
      std::thread(&LogQueue::run, this).detach();
    }
    return true;
  }

  // Writes everything queued, in order. Caller holds io_mutex_ (no other
  // batch is being written) and `lock` on mutex_, released while writing.
  void drain(std::unique_lock<std::mutex>& lock) {
    while (queued_bytes() > 0) {
      writing_.swap(records_);
      const int fd = file_fd_;  // replaced only under io_mutex_
      lock.unlock();
      room_.notify_all();
      const bool to_stderr = !stderr_discarded();
      size_t at = 0;
      while (at < writing_.size()) {
        at = format_records(writing_, at, to_stderr, fd >= 0, lines_, json_);
        write_all(STDERR_FILENO, lines_);
        if (fd >= 0) write_all(fd, json_);
        lines_.clear();
        json_.clear();
      }
      writing_.clear();
      lock.lock();
    }
  }

  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      queued_.wait(lock, [this] { return queued_bytes() > 0; });
      queued_.wait_for(lock, kGatherTime, [this] { return queued_bytes() >= kBatchBytes || exiting_; });
      lock.unlock();
      std::lock_guard<std::mutex> io(io_mutex_);
      lock.lock();
      drain(lock);
    }
  }

  // The child of a fork has no writer thread and inherits the locks in
  // whatever state: they are taken around the fork, so that both sides
  // start with them free. What was queued is the parent's to write.
  static void before_fork() {
    instance().io_mutex_.lock();
    instance().mutex_.lock();
  }
  static void after_fork_parent() {
    instance().mutex_.unlock();
    instance().io_mutex_.unlock();
  }
  static void after_fork_child() {
    instance().forked_child_ = true;
    instance().records_.clear();
    after_fork_parent();
  }
  static void at_exit() {
    LogQueue& queue = instance();
    {
      std::lock_guard<std::mutex> lock(queue.mutex_);
      queue.exiting_ = true;
    }
    queue.room_.notify_all();
    queue.flush();
  }

  std::mutex io_mutex_;  // held while a batch is written; taken before mutex_
  std::mutex mutex_;     // guards everything below
  std::condition_variable queued_;
  std::condition_variable room_;
  std::string records_;  // queued entries
  // The batch being written, and its two forms (io_mutex_).
  std::string writing_;
  std::string lines_;
  std::string json_;
  std::string file_path_;
  int file_fd_ = -1;
  bool writer_started_ = false;
  bool forked_child_ = false;
  bool exiting_ = false;
};

}  // namespace

void queue_log_entry(const LogEntry& entry, std::string_view file_path, bool urgent) {
  LogQueue::instance().add(entry, file_path, urgent);
}

void flush_log_queue() { LogQueue::instance().flush(); }

}  // namespace platform::host
