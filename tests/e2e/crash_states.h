// The disk states a power loss can leave, rebuilt from a file journal
// (MARLO_FILE_JOURNAL) of one directory's files.
//
// The model is that of an ordinary journalling file system, taken strictly:
// - a write or truncation reaches the disk only once an fsync/fdatasync of
//   its file has returned; until then any subset of a file's pending writes
//   may be on the disk, and a single write may be torn at a block boundary
//   (a prefix or a suffix of its blocks kept);
// - a creation, rename or removal reaches the disk only once an fsync of the
//   directory has returned; pending ones reach it in their order (a prefix);
// - a file's data belong to the file, whatever name it has.
// A cut may fall after any operation of the journal.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "sim/wire.h"

namespace marlo::e2e {

struct FileOp {
  // Answered: the daemon told the co-processor that the last write before
  // it is done.
  enum Kind { Create, Write, Truncate, Sync, Rename, Unlink, Answered } kind;
  std::string path;  // file name inside the directory; empty for the directory itself
  std::string to;    // Rename
  uint64_t offset = 0;
  uint64_t length = 0;  // Write: bytes; Truncate: new size
  sim::Bytes data;
};

// Whether a packet the daemon wrote to a device node answers a write as done.
using AnswerCheck = std::function<bool(const std::string& node, const sim::Bytes& packet)>;

// The operations of `journal` on `dir` (a device path ending in '/') and
// its files, and the answers that `answered_done` picks among the packets;
// others are left out. Empty when the file cannot be read.
std::vector<FileOp> read_journal(const std::string& journal, const std::string& dir, const AnswerCheck& answered_done);

// A block answered as written before the cut, which no later write had
// touched: it must read back exactly.
struct DurableBlock {
  std::string name;
  uint64_t offset;
  sim::Bytes data;
};

struct CrashState {
  size_t cut = 0;                           // operations done before the power loss
  std::string how;                          // which pending changes made it, for messages
  std::map<std::string, sim::Bytes> files;  // the directory's contents
  std::vector<DurableBlock> durable;
};

// Every distinct state (the same contents with the same durable blocks are
// listed once). `generated` gets the number before duplicates were dropped.
std::vector<CrashState> crash_states(const std::vector<FileOp>& ops, size_t block_size, size_t* generated);

}  // namespace marlo::e2e
