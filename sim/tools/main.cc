// marlo-sim: the virtual Marlo co-processor and its kernel driver, for
// running, watching and breaking marlod on any Linux machine.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim/capture/device_capture.h"
#include "sim/capture/pcapng_reader.h"
#include "sim/daemon_process.h"
#include "sim/device_root.h"
#include "sim/tools/control_socket.h"
#include "sim/tools/demo.h"
#include "sim/tools/replay.h"
#include "sim/tools/terminal_view.h"
#include "sim/uevent_sender.h"
#include "sim/virtual_device.h"

using namespace marlo::sim;

namespace {

const char kUsage[] =
    "usage: marlo-sim COMMAND [OPTIONS]\n"
    "\n"
    "The virtual Marlo co-processor: a device root (sysfs, properties, firmware)\n"
    "served by a virtual kernel driver and co-processor, against which the\n"
    "unmodified marlod runs with MARLO_ROOT=<root>.\n"
    "\n"
    "commands:\n"
    "  demo [--marlod PATH] [--time-scale X] [--keep-root] [--capture FILE]\n"
    "      Update a virtual Marlo from older to shipped firmware with marlod\n"
    "      (default: marlod next to marlo-sim), verify the flash byte for byte,\n"
    "      reboot and check that the second boot finds the versions matched.\n"
    "      Exit status 0 only when everything verified.\n"
    "      --capture FILE records every message of the session in FILE (pcapng).\n"
    "  serve [--root DIR] [--flash empty|older|shipped] [--variant flash|noflash]\n"
    "        [--running] [--fragment-size N] [--write-delay-ms N]\n"
    "        [--marlod PATH] [--time-scale X] [--capture FILE]\n"
    "      Build a sample device root (in DIR, or a new temporary directory) and\n"
    "      serve it until interrupted, printing what the device does. With\n"
    "      --marlod the daemon is started against it as well. Commands reach a\n"
    "      running serve through <root>/sim/control.sock (see below).\n"
    "  replay CAPTURE [--images DIR] [--prefix] [--marlod PATH] [--time-scale X]\n"
    "      Rebuild the device root of a captured session, run marlod against it,\n"
    "      play the device's side as recorded and check every message marlod\n"
    "      sends byte for byte. Exit status 1 at the first difference, 2 when\n"
    "      the capture cannot be replayed (it names the first point).\n"
    "      --images DIR: a capture made on a device; DIR holds the device's\n"
    "      /vendor firmware directories (firmware_mnt/, bt_firmware/).\n"
    "      --prefix: replay what comes before the first point that cannot be\n"
    "      replayed (lost messages, a power cycle, a cut-short file).\n"
    "  as-device CAPTURE OUT [--full]\n"
    "      Write a host capture as the daemon records it on a device: no setup,\n"
    "      and unless --full, the data of DFU fragments, misc-data packets and\n"
    "      RMA blocks cut (the \"headers\" level).\n"
    "  status --root DIR                  state of a running serve\n"
    "  requests --root DIR                control-device requests received so far\n"
    "  restart --root DIR                 subsystem restart: MARLO_EVENT=1, then 4\n"
    "  power-cycle --root DIR             device reboot: co-processor off, boot mode FLASH\n"
    "  fault --root DIR KIND N            arm a fault in a running serve:\n"
    "      drop-dfu N      hang up the DFU channel after N fragments\n"
    "      busy N          the next N opens of dev/marlo_com_dev fail with EBUSY\n"
    "      flash-load N    the next N FLASH boots fail\n"
    "      rma-restart N   restart the co-processor after N RMA requests\n"
    "  uevent --root DIR N                send one raw MARLO_EVENT=N uevent to the daemon\n"
    "  set-property --root DIR NAME VALUE set a property (no serve needed)\n"
    "  get-property --root DIR NAME       print a property\n"
    "\n"
    "Files of the device root that belong to the virtual device: sim/flash/\n"
    "(virtual flash: image_<id>.bin, raw.bin), sim/misc/ (misc data received),\n"
    "sim/control.sock, sim/marlod*.log and .stderr (daemon logs of demo/serve).\n";

struct Args {
  std::string command;
  std::map<std::string, std::string> options;
  std::vector<std::string> positional;
};

bool is_flag(const std::string& name) {
  return name == "--keep-root" || name == "--running" || name == "--help" || name == "--prefix" || name == "--full";
}

bool parse(int argc, char** argv, Args* args) {
  if (argc < 2) return false;
  args->command = argv[1];
  for (int i = 2; i < argc; ++i) {
    std::string a = argv[i];
    if (a.rfind("--", 0) == 0) {
      if (is_flag(a)) {
        args->options[a] = "1";
      } else if (i + 1 < argc) {
        args->options[a] = argv[++i];
      } else {
        std::fprintf(stderr, "marlo-sim: %s needs a value\n", a.c_str());
        return false;
      }
    } else {
      args->positional.push_back(a);
    }
  }
  return true;
}

std::string option(const Args& a, const std::string& name, const std::string& fallback = "") {
  auto it = a.options.find(name);
  return it == a.options.end() ? fallback : it->second;
}

std::atomic<bool> g_stop{false};
void on_signal(int) { g_stop = true; }

int serve(const Args& a) {
  std::string root = option(a, "--root");
  if (root.empty()) root = make_temp_root("marlo-sim");
  root = std::filesystem::absolute(root).string();
  if (!std::filesystem::exists(root + "/vendor/firmware_mnt/image/flash.bin")) {
    std::filesystem::create_directories(root);
    VirtualDevice::build_sample_root(root);
  }
  DeviceOptions o;
  std::string flash = option(a, "--flash", "older");
  o.flash = flash == "empty"     ? FlashContents::Empty
            : flash == "shipped" ? FlashContents::Shipped
                                 : FlashContents::Older;
  o.variant = option(a, "--variant") == "noflash" ? Variant::NoflashPsram : Variant::Flash;
  o.running_at_start = a.options.count("--running") != 0;
  o.dfu.fragment_size = static_cast<uint32_t>(std::stoul(option(a, "--fragment-size", "4096")));
  o.dfu.write_delay_ms = std::stoi(option(a, "--write-delay-ms", "0"));
  if (!option(a, "--capture").empty()) o.capture_file = std::filesystem::absolute(option(a, "--capture")).string();

  ::signal(SIGINT, on_signal);
  ::signal(SIGTERM, on_signal);
  VirtualDevice device(root, o);
  ControlSocketServer control(device);
  TerminalView view(stdout);
  view.line("serving a virtual Marlo at " + root);
  view.line("  run the daemon with: MARLO_ROOT=" + root + " build/marlod");
  view.line("  commands: marlo-sim status|restart|fault ... --root " + root);
  if (!o.capture_file.empty()) view.line("  capturing the session in " + o.capture_file);

  std::unique_ptr<DaemonProcess> daemon;
  if (a.options.count("--marlod")) {
    DaemonSettings s{option(a, "--marlod"), root, root + "/sim/marlod.log", root + "/sim/marlod.stderr",
                     std::stod(option(a, "--time-scale", "1"))};
    daemon = std::make_unique<DaemonProcess>(s);
    std::string error;
    if (!daemon->start(&error)) {
      view.line(error);
      return 2;
    }
    view.line("  marlod started (pid " + std::to_string(daemon->pid()) + "), log in " + s.log_file);
  }
  size_t cursor = 0;
  while (!g_stop.load()) {
    for (const DeviceEvent& e : device.events().since(cursor)) view.event(e);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  view.line("stopping");
  return 0;
}

int remote(const Args& a, const std::string& command) {
  std::string root = option(a, "--root");
  if (root.empty()) {
    std::fprintf(stderr, "marlo-sim %s: --root DIR is required\n", a.command.c_str());
    return 2;
  }
  std::string reply;
  if (!send_device_command(root, command, &reply)) {
    std::fprintf(stderr, "marlo-sim: no serve is running for %s\n", root.c_str());
    return 1;
  }
  std::fputs(reply.c_str(), stdout);
  return reply.rfind("error:", 0) == 0 ? 1 : 0;
}

int run(const Args& a) {
  const std::string& c = a.command;
  std::string root = option(a, "--root");
  if (c == "demo") {
    DemoOptions d;
    d.marlod = option(a, "--marlod", default_marlod_path());
    d.time_scale = std::stod(option(a, "--time-scale", "0.05"));
    d.keep_root = a.options.count("--keep-root") != 0;
    if (!option(a, "--capture").empty()) d.capture_file = std::filesystem::absolute(option(a, "--capture")).string();
    return run_demo(d, stdout);
  }
  if (c == "serve") return serve(a);
  if (c == "replay" && a.positional.size() == 1) {
    ReplayOptions r;
    r.capture = a.positional[0];
    r.marlod = option(a, "--marlod", default_marlod_path());
    r.time_scale = std::stod(option(a, "--time-scale", "0.01"));
    r.images = option(a, "--images");
    r.prefix = a.options.count("--prefix") != 0;
    return run_replay(r, stdout);
  }
  if (c == "as-device" && a.positional.size() == 2) {
    CaptureFile capture;
    std::string error;
    if (!read_capture(a.positional[0], &capture, &error) ||
        !write_capture(as_device_capture(capture, a.options.count("--full") == 0), a.positional[1], &error)) {
      std::fprintf(stderr, "marlo-sim: %s\n", error.c_str());
      return 1;
    }
    return 0;
  }
  if (c == "status" || c == "requests" || c == "restart" || c == "power-cycle") return remote(a, c);
  if (c == "fault") {
    if (a.positional.size() != 2) return 2;
    return remote(a, "fault " + a.positional[0] + " " + a.positional[1]);
  }
  if (root.empty()) {
    std::fprintf(stderr, "marlo-sim %s: --root DIR is required\n", c.c_str());
    return 2;
  }
  if (c == "uevent" && a.positional.size() == 1) {
    bool sent = send_uevent(root, marlo_uevent(std::atoi(a.positional[0].c_str())));
    if (!sent) std::fprintf(stderr, "marlo-sim: no daemon listens at %s/dev/uevent\n", root.c_str());
    return sent ? 0 : 1;
  }
  if (c == "set-property" && a.positional.size() == 2) {
    set_property(root, a.positional[0], a.positional[1]);
    return 0;
  }
  if (c == "get-property" && a.positional.size() == 1) {
    std::printf("%s\n", get_property(root, a.positional[0], "").c_str());
    return 0;
  }
  std::fputs(kUsage, stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Args args;
  if (!parse(argc, argv, &args) || args.command == "--help" || args.command == "help" || args.options.count("--help")) {
    std::fputs(kUsage, args.command.empty() ? stderr : stdout);
    return args.command.empty() ? 2 : 0;
  }
  try {
    return run(args);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "marlo-sim: %s\n", e.what());
    return 1;
  }
}
