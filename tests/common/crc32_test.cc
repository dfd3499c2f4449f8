// The CRC-32 shared by the DFU, misc-data and RMA messages against the
// standard check values of the reflected IEEE 802.3 CRC, whatever the length
// and the split of the input between calls.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/crc32.h"

namespace marlo::test {
namespace {

uint32_t crc_of(const std::string& text, uint32_t crc = 0) {
  return crc32(crc, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

TEST(Crc32, MatchesTheStandardCheckValues) {
  EXPECT_EQ(crc_of(""), 0u);
  EXPECT_EQ(crc_of("a"), 0xE8B7BE43u);
  EXPECT_EQ(crc_of("123456789"), 0xCBF43926u);
  EXPECT_EQ(crc_of("The quick brown fox jumps over the lazy dog"), 0x414FA339u);
  EXPECT_EQ(crc_of(std::string(32, '\0')), 0x190A55ADu);
  EXPECT_EQ(crc_of(std::string(32, '\xFF')), 0xFF6CAB0Bu);
}

TEST(Crc32, ContinuingAtAnySplitGivesTheWholeChecksum) {
  std::string data;
  for (int i = 0; i < 67; ++i) data += static_cast<char>(i * 37 + 11);
  const uint32_t whole = crc_of(data);
  for (size_t split = 0; split <= data.size(); ++split) {
    EXPECT_EQ(crc_of(data.substr(split), crc_of(data.substr(0, split))), whole) << "split at " << split;
  }
}

}  // namespace
}  // namespace marlo::test
