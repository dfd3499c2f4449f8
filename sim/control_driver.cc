#include "sim/control_driver.h"

#include <cerrno>
#include <cstdio>

#include "sim/device_root.h"

namespace marlo::sim {

namespace {
constexpr size_t kBlockSize = 32;
constexpr size_t kRequestSize = 4 + kBlockSize;

std::string hex(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof(buf), "0x%08x", v);
  return buf;
}
}  // namespace

std::string ControlRequest::name() const {
  switch (request) {
    case kReqSpiFree: return "SPI_FREE";
    case kReqSpiBusy: return "SPI_BUSY";
    case kReqReset: return "RESET";
    case kReqIpc: return cmd == kIpcCmdVersion ? "GET_VERSION" : "IPC";
    case kReqBoot:
      switch (cmd) {
        case kCmdSoftReset: return "SOFT_RESET";
        case kCmdTwmExit: return "TWM_EXIT";
        case kCmdLoad: return "LOAD";
        case kCmdUnload: return "UNLOAD";
        case kCmdSetBootMode: return "SET_BOOT_MODE";
        case kCmdGetBootMode: return "GET_BOOT_MODE";
        case kCmdSaveDump: return "SAVE_DUMP";
        case kCmdBootStatus: return "BOOT_STATUS";
        default: return "BOOT_CMD_" + std::to_string(cmd);
      }
    default: return "UNKNOWN_" + hex(request);
  }
}

ControlDriver::ControlDriver(const std::string& root, CoProcessor& coprocessor, EventLog& log)
    : ChannelServer(root + "/dev/marlo_com_dev"), root_(root), coprocessor_(coprocessor), log_(log) {}

ControlDriver::~ControlDriver() { stop(); }

std::vector<ControlRequest> ControlDriver::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<uint32_t> ControlDriver::boot_statuses() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return boot_statuses_;
}

bool ControlDriver::spi_busy() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return spi_busy_;
}

void ControlDriver::set_refusal(std::function<int(const ControlRequest&)> refusal) {
  std::lock_guard<std::mutex> lock(mutex_);
  refusal_ = std::move(refusal);
}

void ControlDriver::on_packet(int fd, const Bytes& packet) {
  Bytes answer(8 + kBlockSize, 0);
  if (read_fault_breaks_next_send()) {
    // A driver whose answer breaks down has carried out nothing either.
    log_.add("driver", "fault: request not carried out, its answer breaks down");
    send(fd, answer);
    return;
  }
  if (packet.size() < kRequestSize) {
    log_.add("driver", "malformed request of " + std::to_string(packet.size()) + " bytes");
    put_u32(answer, 0, static_cast<uint32_t>(-1));
    put_u32(answer, 4, EINVAL);
    send(fd, answer);
    return;
  }
  uint32_t request = get_u32(packet, 0);
  Bytes block(packet.begin() + 4, packet.begin() + static_cast<long>(kRequestSize));
  uint32_t data = 0;
  if (request == kReqReset) {
    if (packet.size() < kRequestSize + 4) {
      log_.add("driver", "reset request without its data word");
    } else {
      data = get_u32(packet, kRequestSize);
    }
  }
  Bytes reply;
  ControlRequest r = handle(request, block, data, &reply);
  put_u32(answer, 0, static_cast<uint32_t>(r.result));
  put_u32(answer, 4, static_cast<uint32_t>(r.err));
  std::copy(block.begin(), block.end(), answer.begin() + 8);
  answer.insert(answer.end(), reply.begin(), reply.end());
  send(fd, answer);
}

ControlRequest ControlDriver::handle(uint32_t request, const Bytes& block, uint32_t data, Bytes* reply) {
  ControlRequest r;
  r.request = request;
  r.value = get_u32(block, 0);
  r.cmd = get_u32(block, 20);
  r.count = get_u32(block, 24);
  r.reply = get_u32(block, 28);
  r.data = data;
  std::function<int(const ControlRequest&)> refusal;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    refusal = refusal_;
  }
  if (const int refused = refusal ? refusal(r) : 0) {
    r.result = -1;
    r.err = refused;
  } else {
    carry_out(r, reply);
  }
  std::string line = r.name();
  if (request == kReqBoot && (r.cmd == kCmdSetBootMode || r.cmd == kCmdBootStatus))
    line += " " + std::to_string(r.value);
  if (request == kReqReset) line += " data=" + hex(data);
  line += r.result == -1 ? " -> error " + std::to_string(r.err) : " -> " + std::to_string(r.result);
  log_.add("driver", line);
  std::lock_guard<std::mutex> lock(mutex_);
  if (requests_.size() < 100000) requests_.push_back(r);
  return r;
}

void ControlDriver::carry_out(ControlRequest& r, Bytes* reply) {
  auto fail = [&r](int err) {
    r.result = -1;
    r.err = err;
  };
  switch (r.request) {
    case kReqSpiFree:
    case kReqSpiBusy: {
      std::lock_guard<std::mutex> lock(mutex_);
      spi_busy_ = r.request == kReqSpiBusy;
      break;
    }
    case kReqReset:
      if (r.cmd != kResetCmd || r.count != 1 || r.data != kResetData) {
        fail(EINVAL);
      } else {
        coprocessor_.restart(reset_offline_ms_.load());
      }
      break;
    case kReqIpc:
      if (r.cmd != kIpcCmdVersion) {
        fail(EINVAL);
      } else if (std::optional<Bytes> record = coprocessor_.version_record()) {
        *reply = *record;
        r.version_replied = true;
      } else {
        fail(EAGAIN);  // nothing answers while the co-processor is down
      }
      break;
    case kReqBoot: handle_boot(r); break;
    default: fail(ENOTTY);
  }
}

void ControlDriver::handle_boot(ControlRequest& r) {
  switch (r.cmd) {
    case kCmdSoftReset:
      // The chip is held in reset until the next load.
      if (before_host_unload_) before_host_unload_();
      coprocessor_.unload("soft reset");
      break;
    case kCmdTwmExit: write_text(root_ + "/sys/class/pmic-lpm/pmic_twm_exit", "0\n"); break;
    case kCmdLoad:
      if (int err = coprocessor_.load()) {
        r.result = -1;
        r.err = err;
      }
      break;
    case kCmdUnload:
      if (before_host_unload_) before_host_unload_();
      coprocessor_.unload("unloaded by the host");
      break;
    case kCmdSetBootMode:
      if (r.value != kBootModeHost && r.value != kBootModeFlash) {
        r.result = -1;
        r.err = EINVAL;
      } else {
        coprocessor_.set_boot_mode(static_cast<int>(r.value));
      }
      break;
    case kCmdGetBootMode: r.result = coprocessor_.boot_mode(); break;
    case kCmdSaveDump: break;
    case kCmdBootStatus: {
      std::lock_guard<std::mutex> lock(mutex_);
      boot_statuses_.push_back(r.value);
      break;
    }
    default: r.result = -1; r.err = EINVAL;
  }
}

}  // namespace marlo::sim
