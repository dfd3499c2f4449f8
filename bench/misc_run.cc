#include "bench/misc_run.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/download_runs.h"
#include "bench/large_firmware.h"
#include "common/crc32.h"
#include "common/le32.h"
#include "sim/daemon_process.h"
#include "sim/device_root.h"
#include "sim/virtual_device.h"

namespace marlo::bench {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kRunLimit = std::chrono::seconds(120);
// The misc-data files in the order the daemon pushes them, with their kinds.
const std::pair<const char*, uint32_t> kMiscFiles[] = {{"/vendor/bt_firmware/image/mrbtfw20.mbn", 0},
                                                       {"/vendor/bt_firmware/image/mrnv20.bin", 1}};

// Receive times of the co-processor's packets, from its channel thread.
class PacketTimes {
 public:
  sim::MiscDataReceiver::PacketHook hook() {
    return [this](int) {
      std::lock_guard<std::mutex> lock(mutex_);
      times_.push_back(Clock::now());
      return true;
    };
  }
  double span_seconds() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return times_.size() < 2 ? 0 : std::chrono::duration<double>(times_.back() - times_.front()).count();
  }
  int count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(times_.size());
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Clock::time_point> times_;
};

std::vector<uint8_t> read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A root whose Bluetooth firmware has `firmware_bytes`; returns the bytes of all misc data.
uint64_t make_misc_root(const LargeRoot& made, uint32_t firmware_bytes) {
  std::vector<char> firmware(firmware_bytes);
  for (uint32_t i = 0; i < firmware_bytes; ++i) firmware[i] = static_cast<char>(i * 13 + i / 509);
  std::ofstream(made.root + kMiscFiles[0].first, std::ios::binary).write(firmware.data(), firmware_bytes);
  return firmware_bytes + std::filesystem::file_size(made.root + kMiscFiles[1].first);
}

// The packets the daemon sends for the misc files with packets of at most
// `limit` bytes: per file a start, its data, its CRC; a finish at the end.
std::vector<std::vector<uint8_t>> misc_packets(const std::string& root, uint32_t limit) {
  std::vector<std::vector<uint8_t>> packets;
  const auto packet = [&](uint32_t kind, uint32_t type, uint32_t size, uint32_t sequence) -> std::vector<uint8_t>& {
    packets.emplace_back();
    for (uint32_t word : {kind, type, size, sequence}) append_le32(packets.back(), word);
    return packets.back();
  };
  for (const auto& [path, type] : kMiscFiles) {
    const std::vector<uint8_t> data = read_file(root + path);
    const uint32_t total = static_cast<uint32_t>(data.size());
    packet(0, type, total, 0);
    const uint32_t chunk = limit - 16;
    uint32_t offset = 0, sequence = 1;
    if (limit < total + 16 && chunk < total - 1) {
      do {
        packet(1, type, chunk, sequence++)
            .insert(packets.back().end(), data.begin() + offset, data.begin() + offset + chunk);
        offset += chunk;
      } while (static_cast<uint64_t>(offset) + chunk < total - 1);
    }
    packet(2, type, total - offset, sequence).insert(packets.back().end(), data.begin() + offset, data.end());
    append_le32(packet(4, type, 4, 0), crc32(data.data(), data.size()));
  }
  packet(5, 0, 0, 0);
  return packets;
}

bool wait_for(const std::function<bool()>& done, const std::function<bool()>& still_possible) {
  const auto deadline = Clock::now() + kRunLimit;
  while (!done() && still_possible() && Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return done();
}

}  // namespace

MiscFigures run_misc_push(const std::string& marlod, const std::string& floor, uint32_t firmware_bytes) {
  MiscFigures figures;
  {
    LargeRoot made = make_large_root(0);
    figures.bytes = make_misc_root(made, firmware_bytes);
    PacketTimes times;
    {
      sim::DeviceOptions options;
      options.variant = sim::Variant::NoflashPsram;
      options.flash = sim::FlashContents::Empty;
      options.running_at_start = true;
      options.rma.partitions = {};
      sim::VirtualDevice device(made.root, options);
      device.misc().set_packet_hook(times.hook());
      sim::DaemonProcess daemon(daemon_settings(marlod, made.root, made.root + "/sim/marlod.log"));
      std::string error;
      if (!daemon.start(&error)) throw std::runtime_error(error);
      if (!wait_for([&] { return device.misc().status().finishes >= 1; }, [&] { return daemon.alive(); })) {
        throw std::runtime_error("the daemon's misc-data push did not finish; root kept: " + made.root);
      }
      stop_daemon(daemon);
    }
    figures.daemon_seconds = times.span_seconds();
    figures.packets = times.count();
    remove_root(made.root);
  }
  LargeRoot made = make_large_root(0);
  make_misc_root(made, firmware_bytes);
  const std::string packet_dir = made.root + "/sim/floor-misc";
  std::filesystem::create_directories(packet_dir);
  int index = 0;
  for (const auto& packet : misc_packets(made.root, sim::MiscDataReceiver::kDefaultMaxPayload)) {
    char name[16];
    std::snprintf(name, sizeof(name), "%08d", index++);
    std::ofstream(packet_dir + "/" + name, std::ios::binary)
        .write(reinterpret_cast<const char*>(packet.data()), static_cast<std::streamsize>(packet.size()));
  }
  PacketTimes times;
  {
    sim::EventLog log;
    sim::MiscDataReceiver receiver(made.root, log);
    receiver.set_packet_hook(times.hook());
    receiver.start();
    sim::DaemonProcess process(daemon_settings(floor, made.root, made.root + "/sim/floor.log"));
    std::string error;
    if (!process.start(&error)) throw std::runtime_error(error);
    wait_for([&] { return receiver.status().finishes >= 1; }, [&] { return process.alive(); });
    // The floor leaves right after its last packet: let the channel hand it over.
    receiver.deliver_pending(std::chrono::seconds(1));
    const bool finished = receiver.status().finishes >= 1;
    stop_daemon(process);
    if (!finished || times.count() != figures.packets) {
      throw std::runtime_error("the floor's misc-data push did not finish as the daemon's; root kept: " + made.root);
    }
  }
  figures.floor_seconds = times.span_seconds();
  remove_root(made.root);
  return figures;
}

}  // namespace marlo::bench
