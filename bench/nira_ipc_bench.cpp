// Measures the library through its public headers: every mode with a service and an app in processes of their own,
// started afresh. One JSON line a measurement on the standard output.
//
//   nira_ipc_bench [--quick] [--pin] [--mode NAME]... [--calls N] [--under-service COMMAND] [--under-app COMMAND]
//
//   --quick                    fewer calls
//   --pin                      both processes on CPU 0, which sync1pin has anyway, and latency once
//   --mode NAME                this mode instead of the standard ones
//   --calls N                  so many calls in sync1 and sync1pin
//   --under-service COMMAND    the service as the arguments of this command, a checker of memory for example
//   --under-app COMMAND        the app
//
// Exits with 0 if every mode could be measured. One that failed gives a line with "error" and no figures.
#include <stdio.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "app.h"
#include "measure.h"
#include "process.h"
#include "service.h"

namespace {

using Words = std::vector<std::string>;

struct Options {
  Setting setting;
  Words underService, underApp;
  std::vector<const Mode*> modes;
};

const Mode& FindMode(const std::string& name) {
  for (const Mode& mode : Modes()) {
    if (mode.name == name) return mode;
  }
  throw std::invalid_argument("There is no mode " + name);
}

Words Split(const std::string& text) {
  std::istringstream input(text);
  return {std::istream_iterator<std::string>(input), {}};
}

Options ParseOptions(const Words& words) {
  Options options;
  for (size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--quick" || words[i] == "--pin") {
      (words[i] == "--pin" ? options.setting.pinned : options.setting.quick) = true;
      continue;
    }
    if (i + 1 == words.size()) throw std::invalid_argument("What is " + words[i] + "?");
    const std::string& value = words[i + 1];
    if (words[i] == "--mode") {
      options.modes.push_back(&FindMode(value));
    } else if (words[i] == "--calls") {
      options.setting.calls = std::stol(value);
    } else if (words[i] == "--under-service") {
      options.underService = Split(value);
    } else if (words[i] == "--under-app") {
      options.underApp = Split(value);
    } else {
      throw std::invalid_argument("What is " + words[i] + "?");
    }
    ++i;
  }
  if (!options.modes.empty()) return options;
  for (const Mode& mode : Modes()) {
    if (mode.isStandard) options.modes.push_back(&mode);
  }
  return options;
}

Words Myself(Words before, const Words& arguments) {
  before.push_back(std::filesystem::read_symlink("/proc/self/exe"));
  before.insert(before.end(), arguments.begin(), arguments.end());
  return before;
}

// Both processes while nothing happens.
std::string WatchIdle(pid_t service, pid_t app, bool quick) {
  usleep(500'000);  // what connecting has set going comes to rest
  const long serviceBefore = ContextSwitches(service), appBefore = ContextSwitches(app);
  const double start = NowUs();
  sleep(quick ? 1 : 5);
  const double seconds = (NowUs() - start) / 1e6;
  const auto rate = [seconds](long switches) { return static_cast<double>(switches) / seconds; };
  Line line("idle");
  line.Figure("csw_srv", rate(ContextSwitches(service) - serviceBefore));
  line.Figure("csw_cli", rate(ContextSwitches(app) - appBefore)).Figure("csw_other", 0);
  line.Count("threads_srv", ProcField(service, "status", "Threads"));
  line.Count("threads_cli", ProcField(app, "status", "Threads")).Sizes(service, app);
  return line.Json() + "\n";
}

// One start of both processes. What the app printed is told only when everything went well.
void Measure(const Mode& mode, const Options& options, bool pinned) {
  const Setting& setting = options.setting;
  Child service(Myself(options.underService, {"--be-service"}), pinned);
  const std::string port = service.ReadLine();
  if (port.empty()) throw std::runtime_error("the service did not start");
  Child app(Myself(options.underApp, {"--be-app", mode.name, port, std::to_string(service.Pid()),
                                      setting.quick ? "1" : "0", pinned ? "1" : "0", std::to_string(setting.calls)}),
            pinned);
  std::string lines, last;
  for (std::string line; !(line = app.ReadLine()).empty(); last = line) {
    if (line == kIdle) {
      lines = WatchIdle(service.Pid(), app.Pid(), setting.quick);
      app.EndInput();
    } else {
      lines += line + "\n";
    }
  }
  if (!app.Ended()) throw std::runtime_error("the app ended badly: " + last);
  service.EndInput();
  service.ReadLine();
  if (!service.Ended()) throw std::runtime_error("the service ended badly");
  fputs(lines.c_str(), stdout);
  fflush(stdout);
}

// Whether it could be measured.
bool Run(const Mode& mode, const Options& options) {
  const std::string name = mode.name;
  try {
    const bool pinned = options.setting.pinned || name == "sync1pin";
    if (!pinned) Measure(mode, options, false);
    if (pinned || name == "latency") Measure(mode, options, true);
    return true;
  } catch (const std::exception& failure) {
    printf("%s\n", Line(name).Text("error", failure.what()).Json().c_str());
    fflush(stdout);
    return false;
  }
}

int RunModes(const Words& words) {
  const Options options = ParseOptions(words);
  setenv("NIRA_IPC_LOG", "off", 0);  // each registration lists all clients in the log
  EndOnSignals();
  const PrivateSecret secret;
  bool good = true;
  for (const Mode* mode : options.modes) good = !HasBeenEnded() && Run(*mode, options) && good;
  return good ? 0 : 1;
}

int RunApp(const Words& words) {
  const Mode& mode = FindMode(words.at(1));
  Setting setting;
  setting.port = std::stoi(words.at(2));
  setting.service = std::stoi(words.at(3));
  setting.quick = words.at(4) == "1";
  setting.pinned = words.at(5) == "1";
  setting.calls = std::stol(words.at(6));
  mode.run(mode, setting);
  return 0;
}

// Hundreds of connections in one process want more descriptors than usual.
void AllowDescriptors() {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) try {
  const Words words(argv + 1, argv + argc);
  AllowDescriptors();
  if (!words.empty() && words[0] == "--be-service") return RunService();
  if (!words.empty() && words[0] == "--be-app") return RunApp(words);
  return RunModes(words);
} catch (const std::exception& failure) {
  fprintf(stderr, "nira_ipc_bench: %s\n", failure.what());
  return 2;
}
