// The update history: one JSON line per firmware download decision (with
// the download's outcome) and per misc-data push of a flash-less
// co-processor, in "/data/vendor/marlod/updates.jsonl", the last kMaxRecords
// of them. Each attempt that ends also leaves one info log line with the
// same facts.
//
// An attempt is begun by the code that decides it (the daemon: a version
// check, the update flag, a failed FLASH boot, a power-up that needs the
// misc data), counted by the code that serves it (the updater: images,
// bytes, fragments, resumptions, hang-ups; the daemon: restarts) and ended
// by whichever of them learns its outcome. The record itself belongs to
// this object alone: at most one open attempt of each kind, guarded by
// state_lock_, which is held only to change a record in memory, never
// across file I/O. So the DFU reader's fragment answers pay one short lock
// per answer and never wait for the disk.
//
// The file is rewritten whole, atomically, when an attempt begins and when
// it ends, and at most every kCheckpointSeconds while one runs and its
// counts change (by the daemon's main thread, never per packet): the text
// goes to a temporary in the same directory, is synced and renamed over the
// file, and the directory is synced; a power loss leaves the old file or
// the new one. An attempt still
// open is written with the outcome "running"; a file that still says so when
// a later run of the daemon first reads it records an attempt that a daemon
// stop cut short, and is rewritten as "abandoned: daemon stopped".
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "comhandler/wear_firmware_info.h"
#include "platform/thread_annotations.h"

namespace marlo::history {

inline constexpr const char* kHistoryFile = "/data/vendor/marlod/updates.jsonl";
inline constexpr const char* kHistoryTemporary = "/data/vendor/marlod/updates.jsonl.tmp";
inline constexpr const char* kHistoryDir = "/data/vendor/marlod/";
// Records kept; the oldest go first.
inline constexpr size_t kMaxRecords = 64;
// No record the daemon writes comes near this (its texts are cut to
// kMaxTextBytes); a longer line in the file is not one of its records.
inline constexpr size_t kMaxLineBytes = 8192;
// A larger file is not read at all: its records are dropped.
inline constexpr uint64_t kMaxFileBytes = kMaxRecords * kMaxLineBytes;
// Each version text, reason and capture name is cut to this many bytes.
inline constexpr size_t kMaxTextBytes = 128;
// An attempt in progress is written again at most this often, so that one a
// daemon stop cuts short keeps its counts of a few seconds before.
inline constexpr int64_t kCheckpointSeconds = 10;

enum class attempt_kind { dfu = 0, misc_data = 1 };

struct version_texts {
  std::string apps, dsp, bt;
};

// What is known as an attempt begins.
struct attempt_facts {
  std::string decision;                   // "download", "resume", "fallback", "up-to-date", "push", ...
  std::string why;                        // one phrase for a person
  int boot_mode = -1;                     // HOST 0, FLASH 1, -1 unknown
  std::optional<version_texts> reported;  // by the co-processor; none when not queried
  version_texts shipped;                  // the version files on the device
};

// The versions of the co-processor's record, each field read up to its
// terminator or its end.
version_texts reported_versions(const wear_firmware_info_t& record);

// `text` as a JSON string, quotes included. Bytes outside printable ASCII
// are written as \u00XX (read as Latin-1), so a record is plain ASCII
// whatever the co-processor or a version file holds.
std::string json_string(std::string_view text);

class update_history {
 public:
  // Opens an attempt of `kind` and rewrites the file. One of the same kind
  // still open is ended first as "abandoned: superseded".
  void begin(attempt_kind kind, attempt_facts facts) EXCLUDES(state_lock_, file_lock_);
  // A decision that starts no transfer: begun and ended with `outcome` in
  // one rewrite.
  void record(attempt_kind kind, attempt_facts facts, const std::string& outcome) EXCLUDES(state_lock_, file_lock_);
  // Ends the open attempt of `kind` with `outcome` ("done", "failed: ...",
  // "abandoned: ..."), logs its summary and rewrites the file. Nothing
  // happens when none is open.
  void finish(attempt_kind kind, const std::string& outcome) EXCLUDES(state_lock_, file_lock_);

  // Counters of the open attempt of `kind`, if any; any thread, no I/O.
  void served_image(attempt_kind kind, uint32_t image_id) EXCLUDES(state_lock_);
  void served_fragment(attempt_kind kind, uint64_t bytes) EXCLUDES(state_lock_);
  void resumed(attempt_kind kind) EXCLUDES(state_lock_);
  void hung_up(attempt_kind kind) EXCLUDES(state_lock_);
  // The co-processor went down or was reset: counted in every open attempt.
  void restarted() EXCLUDES(state_lock_);
  // Rewrites the file when an open attempt's counts changed and the last
  // rewrite is kCheckpointSeconds old. The main thread's poll calls it.
  void checkpoint() EXCLUDES(state_lock_, file_lock_);

 private:
  struct attempt {
    attempt_kind kind = attempt_kind::dfu;
    attempt_facts facts;
    std::string start;  // UTC, ISO 8601, milliseconds
    int64_t start_ns = 0;
    std::string capture;
    std::vector<uint32_t> image_ids;  // distinct, at most kMaxRecords
    uint64_t bytes = 0;
    uint32_t fragments = 0;
    uint32_t resumptions = 0;
    uint32_t restarts = 0;
    uint32_t hang_ups = 0;
  };
  static attempt start(attempt_kind kind, attempt_facts facts);
  static std::string render(const attempt& a, const std::string& outcome, int64_t now_ns);
  static std::string summary(const attempt& a, const std::string& outcome, int64_t now_ns);
  // Ends `a` with `outcome`: its line queued for the file, its summary
  // returned for the log.
  std::string close(const attempt& a, const std::string& outcome) REQUIRES(state_lock_);
  // Writes the records kept and the open attempts, in that order.
  void rewrite() EXCLUDES(state_lock_, file_lock_);
  // The records of the file as a previous run left them, within bounds.
  static std::deque<std::string> load();

  // Taken first; serialises the rewrites, so that each writes a state at
  // least as new as the one before it.
  platform::mutex file_lock_;
  bool loaded_ GUARDED_BY(file_lock_) = false;
  std::deque<std::string> lines_ GUARDED_BY(file_lock_);  // ended attempts, oldest first

  platform::mutex state_lock_;
  std::optional<attempt> open_[2] GUARDED_BY(state_lock_);
  // Ended since the last rewrite, which moves them to lines_.
  std::vector<std::string> ended_ GUARDED_BY(state_lock_);
  // An open attempt's counts changed since the last rewrite, taken at
  // written_ns_ of the daemon's clock.
  bool counted_ GUARDED_BY(state_lock_) = false;
  int64_t written_ns_ GUARDED_BY(state_lock_) = 0;
};

}  // namespace marlo::history
