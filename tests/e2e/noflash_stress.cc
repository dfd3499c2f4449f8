// Stress run for a flash-less co-processor (not part of the test suite):
// marlod against the virtual co-processor while power events are driven into
// its misc-data pushes and RMA traffic at random points - restarts fired from
// the misc-data channel at the Nth packet, bare power-ups during a push,
// restarts in the middle of RMA requests, bursts of power-ups, and power
// events lost in a uevent socket overrun.
//
// After each event the run waits until the daemon has settled and checks that
// a complete misc-data set arrived after the last power-up, that exactly one
// RMA client is connected, that nothing was rejected and that the RMA backing
// files hold what the co-processor wrote. The first violation, a hang or a
// daemon that died ends the run with status 1 and keeps its device root.
//
// Usage: build/noflash_stress [seconds (default 60)] [seed]; marlod is taken
// from MARLO_BUILD_DIR, else from this program's directory.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sim/daemon_process.h"
#include "sim/device_root.h"
#include "sim/uevent_sender.h"
#include "sim/virtual_device.h"

namespace {

using namespace marlo::sim;
using Clock = std::chrono::steady_clock;

constexpr int kRoundsPerDaemon = 25;  // then a fresh device and daemon: the boot push is stressed too
constexpr int kSettleMs = 30000;

struct Counts {
  int finishes = 0;
  int rma_runs = 0;
};

class Session {
 public:
  Session(const std::string& marlod, std::mt19937& random) : random_(random) {
    root_ = make_temp_root("marlo-stress");
    VirtualDevice::build_sample_root(root_);
    DeviceOptions options;
    options.variant = Variant::NoflashPsram;
    options.flash = FlashContents::Empty;
    options.running_at_start = true;
    options.restart_offline_ms = 5;
    device_ = std::make_unique<VirtualDevice>(root_, options);
    device_->coprocessor().add_power_listener([this](bool up) {
      if (up) mark_power_up(true);
    });
    mark_power_up(true);
    maybe_hook_boot_push();
    daemon_ = std::make_unique<DaemonProcess>(
        DaemonSettings{marlod, root_, root_ + "/sim/marlod.log", root_ + "/sim/marlod.stderr", 0.01});
    std::string error;
    if (!daemon_->start(&error)) fail("marlod did not start: " + error);
    settle();  // the boot's push and RMA client, before any event is sent
  }

  ~Session() {
    daemon_.reset();
    std::vector<std::thread> helpers;
    {
      std::lock_guard<std::mutex> lock(helpers_mutex_);
      helpers.swap(helpers_);
    }
    for (std::thread& helper : helpers) helper.join();
    device_.reset();
    if (!failed_) {
      std::error_code ignored;
      std::filesystem::remove_all(root_, ignored);
    }
  }

  void round(int number) {
    int action = pick(0, 5);
    std::printf("  round %d: action %d\n", number, action);
    device_->events().add("stress", "round " + std::to_string(number) + ": action " + std::to_string(action));
    switch (action) {
      case 0:  // a restart now
        restart();
        break;
      case 1:  // a restart at a packet of the next push
        fire_at_misc_packet([this] { restart(); });
        restart();
        break;
      case 2:  // a bare power-up during the next push
        fire_at_misc_packet([this] { power_up_event(); });
        power_up_event();
        break;
      case 3:  // a restart among the RMA requests
        device_->rma().restart_after_messages(pick(1, 40), [this] { restart(); });
        restart();
        break;
      case 4:  // a burst of power-ups
        for (int i = pick(2, 5); i > 0; --i) power_up_event();
        break;
      default:  // the power-down lost in an overrun, the power-up seen
        device_->coprocessor().unload("stress: power-down");
        arm_uevent_overrun(root_);
        send_uevent(root_, marlo_uevent(kEventPowerDown));
        if (device_->coprocessor().load() != 0) fail("the co-processor did not come up");
        send_uevent(root_, marlo_uevent(kEventPowerUp));
        break;
    }
    settle();
    device_->misc().set_packet_hook(nullptr);
  }

  bool failed() const { return failed_; }

 private:
  int pick(int low, int high) {
    std::lock_guard<std::mutex> lock(random_mutex_);
    return std::uniform_int_distribution<int>(low, high)(random_);
  }

  // A restart on a helper thread of its own: the channel threads that fire
  // one from a hook never wait for another restart to end.
  void restart() {
    const int offline_ms = pick(0, 20);
    std::lock_guard<std::mutex> lock(helpers_mutex_);
    helpers_.emplace_back([this, offline_ms] {
      std::lock_guard<std::mutex> one_at_a_time(restart_mutex_);
      device_->coprocessor().restart(offline_ms);
    });
  }

  // Called from the co-processor's power listener and from channel hooks, so
  // no lock of this object is held while the device's are taken.
  void mark_power_up(bool rma_run_expected) {
    const int finishes = device_->misc().status().finishes;
    const int rma_runs = device_->rma().status().runs_completed;
    std::lock_guard<std::mutex> lock(mutex_);
    at_power_up_.finishes = finishes;
    if (rma_run_expected) at_power_up_.rma_runs = rma_runs;
  }

  void power_up_event() {
    mark_power_up(false);
    send_uevent(root_, marlo_uevent(kEventPowerUp));
  }

  void fire_at_misc_packet(std::function<void()> event) {
    const int target = device_->misc().status().packets + pick(1, 12);
    auto fired = std::make_shared<std::atomic<bool>>(false);
    device_->misc().set_packet_hook([target, fired, event](int packets) {
      if (packets >= target && !fired->exchange(true)) event();
      return true;
    });
  }

  void maybe_hook_boot_push() {
    if (pick(0, 1) == 0) return;
    fire_at_misc_packet([this] { restart(); });
  }

  // Settled: a push finished after the last power-up, no push is open, one
  // RMA client is connected and the RMA run owed to the last real power-up
  // completed; still so a moment later.
  bool settled() {
    Counts base;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      base = at_power_up_;
    }
    MiscStatus misc = device_->misc().status();
    RmaStatus rma = device_->rma().status();
    return device_->coprocessor().running() && misc.finishes > base.finishes && rma.runs_completed > base.rma_runs &&
           device_->misc().open_connections() == 0 && device_->rma().open_connections() == 1;
  }

  void settle() {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kSettleMs);
    int stable = 0;
    while (stable < 10) {
      if (!daemon_->alive()) fail("marlod ended");
      if (Clock::now() > deadline) fail("no complete push and single RMA client after the last power-up");
      stable = settled() ? stable + 1 : 0;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    MiscStatus misc = device_->misc().status();
    if (misc.rejected != 0) fail("the co-processor rejected misc-data packets: " + misc.problems.front());
    if (misc.stored.size() != 2 ||
        std::string(misc.stored.at(0).begin(), misc.stored.at(0).end()) != read_text(root_ + kBtFirmwarePath) ||
        std::string(misc.stored.at(1).begin(), misc.stored.at(1).end()) != read_text(root_ + kBtNvPath)) {
      fail("the stored misc-data set differs from the shipped files");
    }
    RmaStatus rma = device_->rma().status();
    if (rma.bad_answers != 0 || !rma.problems.empty()) fail("bad RMA answers");
    std::string files = device_->rma().verify_backing_files();
    if (!files.empty()) fail(files);
    if (device_->dfu().status().sessions_started != 0) fail("a download started");
  }

  [[noreturn]] void fail(const std::string& what) {
    failed_ = true;
    MiscStatus misc = device_->misc().status();
    RmaStatus rma = device_->rma().status();
    Counts base;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      base = at_power_up_;
    }
    std::fprintf(stderr, "FAILED: %s\ndevice root kept: %s\n", what.c_str(), root_.c_str());
    std::fprintf(stderr, "misc: %d packets, %d finishes, %d open; rma: %d runs completed, %d open; base %d/%d\n",
                 misc.packets, misc.finishes, device_->misc().open_connections(), rma.runs_completed,
                 device_->rma().open_connections(), base.finishes, base.rma_runs);
    size_t cursor = device_->events().size() > 60 ? device_->events().size() - 60 : 0;
    for (const DeviceEvent& event : device_->events().since(cursor)) {
      std::fprintf(stderr, "  %s: %s\n", event.source.c_str(), event.text.c_str());
    }
    daemon_.reset();
    std::_Exit(1);
  }

  std::mt19937& random_;
  std::mutex random_mutex_;
  std::string root_;
  std::unique_ptr<VirtualDevice> device_;
  std::unique_ptr<DaemonProcess> daemon_;
  std::mutex mutex_;
  Counts at_power_up_;  // guarded by mutex_
  std::mutex helpers_mutex_;
  std::vector<std::thread> helpers_;  // guarded by helpers_mutex_
  std::mutex restart_mutex_;          // one restart at a time
  bool failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
  const unsigned seed = argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : std::random_device{}();
  const char* build = std::getenv("MARLO_BUILD_DIR");
  const std::string marlod = build != nullptr ? std::string(build) + "/marlod" : default_marlod_path();
  if (::access(marlod.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "%s is not built (set MARLO_BUILD_DIR)\n", marlod.c_str());
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // every line out before a failure ends the run
  std::printf("noflash_stress: %d s, seed %u, %s\n", seconds, seed, marlod.c_str());
  std::mt19937 random(seed);
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  int rounds = 0;
  for (int session = 1; Clock::now() < end; ++session) {
    std::printf("session %d\n", session);
    Session run(marlod, random);
    for (int i = 0; i < kRoundsPerDaemon && Clock::now() < end; ++i) run.round(++rounds);
  }
  std::printf("noflash_stress: %d rounds, no violation (seed %u)\n", rounds, seed);
  return 0;
}
