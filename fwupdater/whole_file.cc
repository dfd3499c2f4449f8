#include "fwupdater/whole_file.h"

#include <filesystem>
#include <fstream>
#include <limits>

namespace marlo_fw {

WholeFileResult read_whole_file(const std::string& host_path, std::vector<uint8_t>* bytes) {
  bytes->clear();
  // Only regular files hold images; a directory or device would open as a
  // stream but report a meaningless size.
  std::error_code error;
  if (!std::filesystem::is_regular_file(host_path, error)) return WholeFileResult::kNotOpened;
  std::ifstream file(host_path, std::ios::in | std::ios::binary);
  if (!file.is_open()) return WholeFileResult::kNotOpened;

  file.unsetf(std::ios::skipws);
  file.seekg(0, std::ios::end);
  const std::streamoff size = file.tellg();
  file.seekg(0, std::ios::beg);
  // Records carry the size in 32 bits; a larger file cannot be served.
  if (size > static_cast<std::streamoff>(std::numeric_limits<uint32_t>::max()))
    return WholeFileResult::kTooLarge;
  // A stream that cannot tell its size (not a regular file) reads as empty.
  if (size <= 0) return WholeFileResult::kRead;

  // One pass into the buffer sized from the file; reading stops at the size
  // measured, so a file that grows meanwhile cannot make the buffer grow,
  // and one that shrinks or cannot be read keeps only the bytes it gave.
  bytes->resize(static_cast<size_t>(size));
  file.read(reinterpret_cast<char*>(bytes->data()), size);
  bytes->resize(static_cast<size_t>(file.gcount()));
  return WholeFileResult::kRead;
}

}  // namespace marlo_fw
