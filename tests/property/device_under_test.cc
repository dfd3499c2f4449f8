#include "device_under_test.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>
#include <utility>

#include "sim/device_root.h"
#include "sim/dfu_message.h"
#include "sim/uevent_sender.h"
#include "support/wait_until.h"

namespace marlo::property {

namespace {

// About 120 fragments of 4 ms: the image phase lasts half a second.
constexpr uint32_t kFragmentSize = 2048;
constexpr int kFlashWriteMs = 4;
// A reset request is served within this (real time).
constexpr std::chrono::milliseconds kResetServed{5000};
// The work a script leaves (a download, a push after a power-up) ends within
// this once the co-processor stays quiet. A silent co-processor costs the
// push five unscaled 2-second read time-outs; CI machines are loaded.
constexpr std::chrono::milliseconds kSettle{20000};
// The window over which a quiet daemon's CPU time and log growth are taken.
constexpr std::chrono::milliseconds kQuietWindow{500};
constexpr std::chrono::milliseconds kLogLanding{200};
constexpr double kMaxCoreShare = 0.05;
constexpr long kMaxLogBytesPerSecond = 64 * 1024;

// A channel the daemon is about to open is waited for this long.
constexpr std::chrono::milliseconds kChannelOpen{1000};
// The RMA workload is between runs once it sent nothing for this long.
constexpr std::chrono::milliseconds kWorkloadIdle{200};
// The daemon answers an RMA request within this, or is taken not to answer.
constexpr std::chrono::milliseconds kRmaAnswer{1000};

constexpr const char* kResetProperty = "vendor.marlo_reset";
// Sequences start once the daemon has found the co-processor running and
// reported its boot complete. A co-processor that restarts before then makes
// the boot fail for good ("Marlo boot failed in Host Mode.", no version
// record, later power-ups do nothing): a known open fault, left to the
// exploration (MARLO_PROPERTY_EARLY=1) until the boot takes a restart.
constexpr const char* kBootCompleteProperty = "vendor.marlo.boot_complete";
constexpr std::chrono::milliseconds kBootComplete{10000};

int count_entries(const std::string& dir) {
  std::error_code error;
  int count = 0;
  for (std::filesystem::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) ++count;
  return error ? -1 : count;
}

// The message logged most often in the log file from byte `from` on, with
// its count: what a noisy daemon repeats.
std::string most_repeated_line(const std::string& log_file, long from) {
  std::ifstream in(log_file);
  in.seekg(from);
  std::map<std::string, int> counts;
  std::string line;
  while (std::getline(in, line)) {
    const size_t msg = line.find("\"msg\": ");
    if (msg != std::string::npos) ++counts[line.substr(msg + 7, 100)];
  }
  auto top =
      std::max_element(counts.begin(), counts.end(), [](const auto& a, const auto& b) { return a.second < b.second; });
  return top == counts.end() ? "" : std::to_string(top->second) + " x " + top->first;
}

sim::Bytes hostile_dfu_message(uint32_t kind) {
  // An answer the co-processor never owes: a state answer with the words of
  // a session in progress, then damaged as the kind says.
  sim::Bytes m = sim::make_dfu_message(sim::kSpclOperationResp, {sim::kSpclOpGetState, sim::kStateOffsetReq, 7});
  switch (kind) {
    case kWrongMagic: sim::put_u32(m, 4, 0xDEADBEEF); break;
    case kWrongCrc: sim::put_u32(m, 12, sim::get_u32(m, 12) ^ 0x5A5A5A5A); break;
    case kLengthTooLong: sim::put_u32(m, 8, 0x7FFFFFF0); break;
    case kLengthTooShort: sim::put_u32(m, 8, 8); break;
    case kUnknownCommand: m = sim::make_dfu_message(0x4242, {1, 2, 3}); break;
    case kHeaderOnlyHalf: m.resize(sim::kDfuHeaderSize / 2); break;
    default: break;
  }
  return m;
}

sim::AnswerFault misc_fault(const Step& step) {
  sim::AnswerFault fault;
  fault.skip = static_cast<int>(step.arg);
  switch (step.detail & 0xFF) {
    case kMiscFailure:
      fault.kind = sim::AnswerFault::Kind::ReplaceWord;
      fault.word_offset = 16;  // the answer's status word
      fault.word = static_cast<uint32_t>(-EIO);
      break;
    case kMiscSilence: fault.kind = sim::AnswerFault::Kind::Silence; break;
    default:
      fault.kind = sim::AnswerFault::Kind::CutShort;
      fault.cut_to = step.detail >> 8;
      break;
  }
  return fault;
}

}  // namespace

// The rig's time scale keeps the daemon's fixed waits (1 s per boot attempt,
// 2 s after misc data) at a few milliseconds; poll time-outs are not scaled.
DeviceUnderTest::DeviceUnderTest(Variant variant, std::string* start_error) {
  script_.variant = variant;
  sim::DeviceOptions options;
  if (variant == Variant::Noflash) {
    options = e2e::noflash_options();
    runs_before_power_up_ = 0;
  } else {
    // Older firmware in flash and the update flag set: a download at start,
    // over a flash that takes its time, so that what the co-processor does
    // next can land in the middle of it.
    sim::set_property(root_, "persist.vendor.zt_aon.dfu_update", "1");
    options.dfu.fragment_size = kFragmentSize;
    options.dfu.write_delay_ms = kFlashWriteMs;
  }
  start_device(options);
  device_->rma().set_answer_tap([this](const sim::Bytes& answer) {
    if (!RmaProbe::is_probe_answer(answer)) return false;
    std::lock_guard<std::mutex> lock(answers_mutex_);
    probe_answers_.push_back(answer);
    return true;
  });
  *start_error = launch_daemon();
  if (start_error->empty() && std::getenv("MARLO_PROPERTY_EARLY") == nullptr &&
      !test::wait_until([this] { return sim::get_property(root_, kBootCompleteProperty) == "1"; }, kBootComplete)) {
    *start_error = "marlod did not report its boot complete";
  }
}

void DeviceUnderTest::note_restart() {
  // A run in progress is abandoned when the co-processor goes down: the run
  // that must complete is one started after this.
  if (script_.variant == Variant::Noflash) runs_before_power_up_ = device_->rma().status().runs_started;
  note_power_up();
}

// Every power-up owes a misc-data push: the work is not done before one has
// reached the co-processor after it (a push abandoned by the power event
// closes its channel before the next one opens it again).
void DeviceUnderTest::note_power_up() {
  if (script_.variant == Variant::Noflash) misc_packets_before_power_up_ = device_->misc().status().packets;
}

std::string DeviceUnderTest::apply(const Step& step) {
  script_.steps.push_back(step);
  switch (step.action) {
    case Action::Wait: std::this_thread::sleep_for(std::chrono::milliseconds(step.arg)); break;
    case Action::Restart:
      note_restart();
      device_->coprocessor().restart(static_cast<int>(step.arg));
      break;
    case Action::PowerEvents:
      note_power_up();
      if (step.arg == 0) sim::send_uevent(root_, sim::marlo_uevent(sim::kEventPowerDown));
      sim::send_uevent(root_, sim::marlo_uevent(sim::kEventPowerUp));
      break;
    case Action::HalfClose: {
      // Only an open channel can be half-closed: it is given a moment to be.
      sim::ChannelServer* channels[] = {&device_->dfu(), &device_->misc(), &device_->rma()};
      sim::ChannelServer& channel = *channels[step.arg % 3];
      test::wait_until([&] { return channel.open_connections() > 0; }, kChannelOpen);
      channel.half_close_all();
      break;
    }
    case Action::MiscAnswer: device_->misc().arm_answer_fault(misc_fault(step)); break;
    case Action::DfuHostile: device_->dfu().inject(hostile_dfu_message(step.arg)); break;
    case Action::Reset: {
      note_restart();
      sim::set_property(root_, kResetProperty, "1");
      if (!test::wait_until([&] { return sim::get_property(root_, kResetProperty) == "0"; }, kResetServed)) {
        return "the reset request was not served within " + std::to_string(kResetServed.count() / 1000) + " s";
      }
      break;
    }
    case Action::Rma:
      if (std::string wrong = probe_rma(step); !wrong.empty()) return wrong;
      break;
    case Action::Relaunch: {
      rma_probe_.forget_session();
      // A workload run the killed daemon was serving is lost with its
      // connection (the co-processor's next power-up starts another); one
      // not yet started is still owed to the new daemon.
      if (runs_before_power_up_ >= 0 && device_->rma().status().runs_started > runs_before_power_up_) {
        runs_before_power_up_ = -1;
      }
      daemon_.reset();
      takes_at_relaunch_ = wakelock_takes();
      releases_at_relaunch_ = wakelock_releases();
      const std::string error = launch_daemon();
      if (!error.empty()) return "marlod could not be started again: " + error;
      break;
    }
  }
  return check_running();
}

std::string DeviceUnderTest::probe_rma(const Step& step) {
  // The daemon keeps one stored partition: the probe speaks between the
  // workload's runs, never inside one, and after the run a power-up owes.
  test::wait_until(
      [&] {
        return runs_before_power_up_ < 0 ||
               static_cast<int>(device_->rma().status().last_completed_run) > runs_before_power_up_;
      },
      kResetServed);
  int messages = device_->rma().status().messages;
  test::wait_until(
      [&] {
        std::this_thread::sleep_for(kWorkloadIdle);
        const int now = device_->rma().status().messages;
        return std::exchange(messages, now) == now;
      },
      kResetServed);
  const RmaRequest request = decode_rma_step(step);
  const uint32_t number = static_cast<uint32_t>(script_.steps.size());
  {
    std::lock_guard<std::mutex> lock(answers_mutex_);
    probe_answers_.clear();
  }
  const bool session = messages == workload_messages_at_connect_;
  if (request.command == sim::kRmaConnect) workload_messages_at_connect_ = messages;
  if (!device_->rma().inject(RmaProbe::request(request, number))) return "";  // channel not open
  std::optional<sim::Bytes> answer;
  test::wait_until(
      [&] {
        std::lock_guard<std::mutex> lock(answers_mutex_);
        if (!probe_answers_.empty()) answer = probe_answers_.front();
        return answer.has_value();
      },
      kRmaAnswer);
  if (std::getenv("MARLO_PROPERTY_VERBOSE") != nullptr) {
    std::printf("  %s: %s\n", describe_rma_step(step).c_str(),
                answer ? ("answer of " + std::to_string(answer->size()) + " bytes, result word " +
                          std::to_string(sim::get_u32(*answer, 28)))
                             .c_str()
                       : "no answer");
  }
  return rma_probe_.check(request, number, answer, session || request.command == sim::kRmaConnect);
}

std::string DeviceUnderTest::check_wakelock() const {
  // The kernel keeps one lock by name: a take while it is held and a release
  // while it is not change nothing. Within one daemon's life the takes and
  // releases alternate; a killed daemon's lock is released by the next
  // daemon's first release.
  const size_t takes = wakelock_takes();
  const size_t releases = wakelock_releases();
  const bool released_since = releases > releases_at_relaunch_;
  const size_t own_takes = released_since ? takes - takes_at_relaunch_ : takes;
  const size_t own_releases = released_since ? releases - releases_at_relaunch_ : releases;
  if (own_takes > own_releases) {
    return "the kernel wakelock is held at quiescence (" + std::to_string(takes) + " takes, " +
           std::to_string(releases) + " releases)";
  }
  return "";
}

std::string DeviceUnderTest::check_running() const {
  int status = 0;
  if (!daemon_->alive(&status)) {
    return "marlod ended (wait status " + std::to_string(status) + "); its log is " + log_file_;
  }
  const sim::DfuStatus dfu = device_->dfu().status();
  if (dfu.crc_errors + dfu.protocol_errors > 0) {
    return "the daemon sent " + std::to_string(dfu.crc_errors) + " DFU message(s) with a wrong CRC and " +
           std::to_string(dfu.protocol_errors) + " out of protocol";
  }
  const sim::MiscStatus misc = device_->misc().status();
  if (!misc.problems.empty()) return "misc data the co-processor rejected: " + misc.problems.front();
  const sim::RmaStatus rma = device_->rma().status();
  if (rma.bad_answers > 0) {
    return "bad RMA answer(s): " + (rma.problems.empty() ? std::string("?") : rma.problems.front());
  }
  return "";
}

std::string DeviceUnderTest::work_left() const {
  if (script_.variant == Variant::Flash) {
    const sim::DfuStatus dfu = device_->dfu().status();
    if (dfu.sessions_completed < 1) return "the firmware download never completed";
    if (!device_->coprocessor().running()) return "the co-processor was left down";
    if (device_->coprocessor().boot_mode() != sim::kBootModeFlash) return "the co-processor was left in HOST mode";
    const std::string flash = flash_problem();
    return flash.empty() ? "" : "the flash is not exact after the download: " + flash;
  }
  if (device_->misc().status().packets <= misc_packets_before_power_up_) {
    return "no misc-data push reached the co-processor after the last power-up";
  }
  if (device_->misc().open_connections() > 0) return "the misc-data push never ended (its channel stays open)";
  if (device_->rma().open_connections() < 1) return "no RMA client serves the co-processor";
  const sim::RmaStatus rma = device_->rma().status();
  if (runs_before_power_up_ >= 0 && static_cast<int>(rma.last_completed_run) <= runs_before_power_up_) {
    return "the RMA workload after the last power-up never completed (runs started " +
           std::to_string(rma.runs_started) + ", completed " + std::to_string(rma.runs_completed) + ")";
  }
  return "";
}

ProcessShape DeviceUnderTest::shape() const {
  const std::string proc = "/proc/" + std::to_string(daemon_->pid());
  ProcessShape shape{count_entries(proc + "/fd"), count_entries(proc + "/task"), {}};
  std::error_code error;
  for (std::filesystem::directory_iterator it(proc + "/fd", error), end; !error && it != end; it.increment(error)) {
    std::error_code unreadable;
    std::string target = std::filesystem::read_symlink(it->path(), unreadable).string();
    // Sockets and pipes differ by inode from run to run: their kind is kept.
    if (const size_t colon = target.find(":["); colon != std::string::npos) target.resize(colon);
    if (const size_t root = target.find(root_); root != std::string::npos) target.erase(root, root_.size());
    shape.targets.push_back(target);
  }
  std::sort(shape.targets.begin(), shape.targets.end());
  return shape;
}

namespace {

// "+x" for what `now` has beyond `then`, "-x" for what it lacks.
std::string difference(std::vector<std::string> then, std::vector<std::string> now) {
  std::vector<std::string> gained, lost;
  std::set_difference(now.begin(), now.end(), then.begin(), then.end(), std::back_inserter(gained));
  std::set_difference(then.begin(), then.end(), now.begin(), now.end(), std::back_inserter(lost));
  std::string text;
  for (const std::string& t : gained) text += " +" + t;
  for (const std::string& t : lost) text += " -" + t;
  return text;
}

}  // namespace

std::string DeviceUnderTest::check_quiet_window() const {
  // The log's writer thread lands what the last work logged a few
  // milliseconds late: that is not the quiet daemon's.
  std::this_thread::sleep_for(kLogLanding);
  const Activity window = activity_over(kQuietWindow);
  const double share = window.core_share;
  const double log_rate = window.log_bytes_per_second;
  std::ostringstream out;
  if (share >= kMaxCoreShare) out << "a quiet daemon uses " << static_cast<int>(share * 100) << "% of a core";
  if (log_rate >= kMaxLogBytesPerSecond) {
    out << (out.tellp() > 0 ? "; " : "") << "a quiet daemon logs " << static_cast<long>(log_rate / 1024)
        << " KiB a second";
  }
  if (out.tellp() > 0) out << " (most logged: " << most_repeated_line(log_file_, window.log_from) << ")";
  return out.str();
}

std::string DeviceUnderTest::quiesce(const ProcessShape* baseline) {
  if (std::string broken = check_running(); !broken.empty()) return broken;
  test::wait_until([&] { return work_left().empty(); }, kSettle);
  const std::string noisy = check_quiet_window();
  if (std::string left = work_left(); !left.empty()) return noisy.empty() ? left : left + "; " + noisy;
  if (!noisy.empty()) return noisy;
  if (std::string held = check_wakelock(); !held.empty()) return held;
  if (baseline != nullptr) {
    const ProcessShape now = shape();
    // Growth is a leak; one fewer is what a restart at the right moment of
    // the boot leaves, and a channel left closed shows in the work left.
    if (now.descriptors > baseline->descriptors || now.threads > baseline->threads) {
      return "descriptors/threads at quiescence " + std::to_string(now.descriptors) + "/" +
             std::to_string(now.threads) + ", baseline " + std::to_string(baseline->descriptors) + "/" +
             std::to_string(baseline->threads) + " (descriptors:" + difference(baseline->targets, now.targets) + ")";
    }
  }
  return check_running();
}

}  // namespace marlo::property
