// The backing files of the RMA service under "/data/vendor/aon/" and the
// storage policy that bounds them.
//
// A backing file is created whole or not at all: its zeros are written under
// a temporary name in the same directory, put on stable storage and renamed
// into place, and the directory entry is put on stable storage too. A
// partition name is therefore always a complete file; a crash can leave only
// a temporary, which the daemon removes at start-up.
//
// Called on the RMA transport's reader thread (creation) and on the main
// thread before the RMA channel is opened (clean-up): never at the same time.
#pragma once

#include <cstdint>
#include <string>

namespace marlo::rma {

// The directory that holds the backing files, as the co-processor's
// partitions are named on the device.
inline constexpr const char* kPartitionDir = "/data/vendor/aon/";

// The storage policy. Whatever partition sizes the co-processor asks for,
// one backing file holds at most kMaxPartitionBytes, and all regular files of
// kPartitionDir together at most kMaxStorageBytes. A CONNECT beyond either
// creates no file; files that exist are never removed or shrunk by it.
inline constexpr uint64_t kMaxPartitionBytes = 64ull << 20;
inline constexpr uint64_t kMaxStorageBytes = 256ull << 20;
// One run of the daemon serves at most kMaxPartitions backing file names
// (made or found by a CONNECT); a CONNECT of a further name is refused. A
// co-processor keeps a handful of partitions; the bound keeps the table of
// claimed names (rma_partition_claims.h) and the files one run can make
// small whatever the CONNECTs name.
inline constexpr uint32_t kMaxPartitions = 64;

// Partition names are decimal digits only, so a name with this suffix is
// never a partition.
inline constexpr const char* kTemporarySuffix = ".tmp";

enum class create_result {
  created,  // a zero-filled file of the asked size now has the name
  exists,   // the name was taken; the file is left exactly as it is
  refused,  // beyond the storage policy; nothing created
  failed,   // the file system refused; nothing left behind
};

// Creates the zero-filled backing file kPartitionDir + `name` of `size`
// bytes unless the name exists or the storage policy forbids it.
create_result create_backing_file(const std::string& name, uint64_t size);

// Bytes held now by the regular files of kPartitionDir (their sizes).
uint64_t stored_bytes();

// Removes the temporaries that an interrupted creation left behind.
void remove_stale_temporaries();

}  // namespace marlo::rma
