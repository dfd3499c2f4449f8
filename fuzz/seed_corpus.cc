// Writes the fuzzers' seed corpora: well-formed inputs of each entry point,
// built from the protocols' own layouts, so that every fuzzer starts from the
// paths a real co-processor, firmware build or kernel takes.
//
//   marlo_fuzz_seeds OUT_DIR   ->  OUT_DIR/<fuzzer>/<seed>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/crc32.h"
#include "sim/boot_loader_elf.h"
#include "sim/sample_firmware.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace fs = std::filesystem;

fs::path g_out;

void put32(Bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void put16(Bytes& b, size_t v) {
  b.push_back(static_cast<uint8_t>(v));
  b.push_back(static_cast<uint8_t>(v >> 8));
}
void append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }
void append(Bytes& b, const std::string& more) { b.insert(b.end(), more.begin(), more.end()); }

void seed(const std::string& fuzzer, const std::string& name, const Bytes& bytes) {
  fs::create_directories(g_out / fuzzer);
  std::ofstream out(g_out / fuzzer / name, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// A DFU message: id, magic, total length, CRC-32 of all with the CRC zero.
Bytes dfu(uint32_t id, std::initializer_list<uint32_t> payload) {
  Bytes m;
  put32(m, id);
  put32(m, 0x0A0B0C0D);
  put32(m, static_cast<uint32_t>(16 + 4 * payload.size()));
  put32(m, 0);
  for (uint32_t w : payload) put32(m, w);
  const uint32_t crc = marlo::crc32(m.data(), m.size());
  std::memcpy(m.data() + 12, &crc, 4);
  return m;
}

// An RMA message: CRC-32 of bytes 4.., total length, command, payload.
Bytes rma(uint32_t command, const Bytes& payload) {
  Bytes m;
  put32(m, 0);
  put32(m, static_cast<uint32_t>(12 + payload.size()));
  put32(m, command);
  append(m, payload);
  const uint32_t crc = marlo::crc32(m.data() + 4, m.size() - 4);
  std::memcpy(m.data(), &crc, 4);
  return m;
}

Bytes words(std::initializer_list<uint32_t> values) {
  Bytes b;
  for (uint32_t v : values) put32(b, v);
  return b;
}

// Length-prefixed sequence, as the RMA and transport fuzzers read it.
Bytes sequence(Bytes prefix, std::initializer_list<Bytes> messages) {
  for (const Bytes& m : messages) {
    put16(prefix, m.size());
    append(prefix, m);
  }
  return prefix;
}

void dfu_seeds() {
  const std::pair<const char*, Bytes> messages[] = {
      {"info_req_flash", dfu(3, {1})},
      {"info_req_unknown", dfu(3, {77})},
      {"offset_req_first", dfu(5, {1, 0, 4096})},
      {"offset_req_past_end", dfu(5, {2, 1u << 30, 4096})},
      {"offset_req_huge_fragment", dfu(5, {1, 0, 0xFFFFFFFF})},
      {"session_end_req", dfu(11, {})},
      {"erase_done", dfu(14, {0, 0, 0, 0, 0, 0, 0})},
      {"erase_failed", dfu(14, {0, 5, 0, 0, 0, 0, 0})},
      {"state_init", dfu(14, {1, 0, 0, 0, 0, 0, 0})},
      {"state_offset_req", dfu(14, {1, 0, 0, 2, 2, 8192, 4096})},
      {"state_session_end", dfu(14, {1, 0, 0, 3, 0, 0, 0})},
      {"state_failed", dfu(14, {1, 1, 0, 0, 0, 0, 0})},
      {"cancel_req", dfu(7, {})},
      {"invalid_id", dfu(13, {})},
      {"mg_updt_resp", dfu(2, {})},
  };
  for (const auto& [name, message] : messages) {
    for (uint8_t selector : {0, 1}) {
      Bytes input{selector};
      append(input, message);
      seed("dfu_dispatch_fuzzer", std::string(name) + "_" + std::to_string(selector), input);
    }
  }
}

// Plan byte, then length-prefixed messages (one length byte each).
void dfu_setup_race_seeds() {
  const Bytes info = dfu(3, {1});
  const Bytes offset = dfu(5, {1, 0, 4096});
  const Bytes partition = dfu(5, {2, 8192, 1024});
  const Bytes erase_done = dfu(14, {0, 0, 0, 0, 0, 0, 0});
  const Bytes state_offset = dfu(14, {1, 0, 0, 2, 1, 4096, 4096});
  const Bytes session_end = dfu(11, {});
  const std::pair<const char*, std::vector<Bytes>> flows[] = {
      {"requests", {info, offset, info, partition, offset, partition}},
      {"erase_then_resume", {erase_done, erase_done, erase_done, state_offset, offset}},
      {"session_end_in_between", {info, offset, session_end, info, offset}},
  };
  for (const auto& [name, flow] : flows) {
    for (uint8_t plan : {0x00, 0x21, 0x32, 0x53}) {
      Bytes input{plan};
      for (const Bytes& m : flow) {
        input.push_back(static_cast<uint8_t>(m.size()));
        append(input, m);
      }
      seed("dfu_setup_race_fuzzer", std::string(name) + "_" + std::to_string(plan), input);
    }
  }
}

void rma_seeds() {
  const Bytes connect = rma(0, words({0, 7, 1, 8192, 0, 0x00C0FFEE}));  // 40 bytes
  Bytes block(1024, 0x5A);
  Bytes write_payload = words({7, 7, 1024, 1024, 0});
  append(write_payload, block);
  const Bytes write = rma(512, write_payload);
  const Bytes read = rma(256, words({7, 7, 1024, 1024, 0}));
  const Bytes disconnect = rma(2, words({7}));
  seed("rma_fuzzer", "connect_write_read_disconnect", sequence({}, {connect, write, read, disconnect}));
  seed("rma_fuzzer", "write_past_end", sequence({}, {connect, rma(512, words({7, 7, 8000, 1024, 0}))}));
  seed("rma_fuzzer", "read_without_connect", sequence({}, {read}));
  seed("rma_fuzzer", "invalid_command", sequence({}, {rma(99, {})}));
  seed("rma_fuzzer", "header_only", sequence({}, {rma(2, {})}));
}

void transport_seeds() {
  const Bytes info = dfu(3, {1});
  const Bytes offset = dfu(5, {1, 0, 4096});
  seed("glink_framing_fuzzer", "dfu_two_packets", sequence({0}, {info, offset}));
  // A header announcing 28 bytes, sent as 20 + 8.
  seed("glink_framing_fuzzer", "dfu_split_packet",
       sequence({0}, {Bytes(offset.begin(), offset.begin() + 20), Bytes(offset.begin() + 20, offset.end())}));
  const Bytes connect = rma(0, words({0, 7, 1, 8192, 0, 0x00C0FFEE}));
  seed("glink_framing_fuzzer", "rma_connect", sequence({1}, {connect, rma(2, words({7}))}));
  Bytes response(16, 0);
  append(response, words({0, 1024}));
  seed("glink_framing_fuzzer", "custom_data_response", sequence({2}, {response}));
}

void partition_seeds() {
  using namespace marlo::sim;
  FirmwareSet set = make_firmware_set(shipped_versions());
  // The sample table with the boot loader right after a 64-byte header.
  std::string xml = set.partition_table_xml();
  const std::string from = "<Partition_1_SBL_Offset>" + std::to_string(set.sbl_offset);
  xml.replace(xml.find(from), from.size(), "<Partition_1_SBL_Offset>64");
  Bytes flash(64, 0xFF);
  append(flash, build_boot_loader_elf(1).bytes);
  Bytes input;
  put16(input, xml.size());
  append(input, xml);
  append(input, flash);
  seed("partition_elf_fuzzer", "sample_table_elf32", input);

  // A 64-bit ELF at offset 0 whose second program header is the segment.
  Bytes elf64(64 + 3 * 56 + 20, 0);
  const uint8_t ident[] = {0x7F, 'E', 'L', 'F', 2, 1, 1};
  std::memcpy(elf64.data(), ident, sizeof(ident));
  elf64[32] = 64;                 // program header table offset
  elf64[56] = 3;                  // program header count
  const size_t second = 64 + 56;  // p_offset at +8, p_vaddr at +16
  elf64[second + 8] = static_cast<uint8_t>(64 + 3 * 56);
  const uint32_t vaddr = kDebugPolicyAddress;
  std::memcpy(&elf64[second + 16], &vaddr, 4);
  const std::string small_xml =
      "<data><mbr><Partition_1_SBL_Offset>0</Partition_1_SBL_Offset></mbr><Bank_1><Partition_table>"
      "<Partition><Offset>4096</Offset><img_id>10</img_id><Partition_Name>efs</Partition_Name><size>4096</size>"
      "<HostSpecificInfo><PartType>1</PartType></HostSpecificInfo></Partition>"
      "<Partition><img_id>11</img_id><Image_Path>partition_1.bin</Image_Path></Partition>"
      "</Partition_table></Bank_1></data>";
  input.clear();
  put16(input, small_xml.size());
  append(input, small_xml);
  append(input, elf64);
  seed("partition_elf_fuzzer", "small_table_elf64", input);
}

void version_seeds() {
  using namespace marlo::sim;
  for (const auto& [name, versions] :
       {std::make_pair("shipped", shipped_versions()), std::make_pair("older", older_versions())}) {
    Bytes record(308, 0);
    const FirmwareVersions running = shipped_versions();
    std::memcpy(&record[8], running.apps.data(), std::min<size_t>(running.apps.size(), 99));
    std::memcpy(&record[108], running.dsp.data(), std::min<size_t>(running.dsp.size(), 99));
    std::memcpy(&record[208], running.bt.data(), std::min<size_t>(running.bt.size(), 99));
    FirmwareSet set = make_firmware_set(versions);
    append(record, set.version_file());
    seed("version_file_fuzzer", name, record);
  }
  // A key line just below the longest line the parser searches (4096 bytes).
  Bytes record(308, 0);
  append(record, "\"apps_cochip\": \"" + std::string(4070, 'a') + "&\"\n");
  seed("version_file_fuzzer", "long_line", record);
}

void uevent_seeds() {
  const std::string device = std::string("change@/devices/platform/marlo_com_dev") + '\0' + "ACTION=change" + '\0';
  for (const char* event : {"1", "4", "2"}) {
    std::string m = device + "MARLO_EVENT=" + event + '\0';
    seed("uevent_fuzzer", std::string("event_") + event, Bytes(m.begin(), m.end()));
  }
  std::string other = std::string("change@/devices/platform/other") + '\0' + "MARLO_EVENT=4" + '\0';
  seed("uevent_fuzzer", "other_device", Bytes(other.begin(), other.end()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUT_DIR\n", argv[0]);
    return 2;
  }
  g_out = argv[1];
  dfu_seeds();
  dfu_setup_race_seeds();
  rma_seeds();
  transport_seeds();
  partition_seeds();
  version_seeds();
  uevent_seeds();
  return 0;
}
