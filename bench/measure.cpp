#include "measure.h"

#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>

namespace {

// User and system time of a process, from its clock: finer than getrusage, and readable from outside.
double CpuUs(pid_t pid) {
  clockid_t clock = 0;
  timespec time = {};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) return 0;
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

// `sorted` is not empty.
double Percentile(const std::vector<double>& sorted, double percent) {
  return sorted[static_cast<size_t>(percent / 100 * static_cast<double>(sorted.size() - 1))];
}

std::string Decimal(double value) {
  char text[32];
  snprintf(text, sizeof text, "%.1f", value);
  return text;
}

long PrivateKib(pid_t pid) {
  return ProcField(pid, "smaps_rollup", "Private_Clean") + ProcField(pid, "smaps_rollup", "Private_Dirty");
}

}  // namespace

double NowUs() {
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

long ProcField(pid_t pid, const std::string& file, const std::string& key) {
  std::ifstream input("/proc/" + std::to_string(pid) + "/" + file);
  for (std::string line; std::getline(input, line);) {
    if (line.rfind(key + ":", 0) == 0) return std::atol(line.c_str() + key.size() + 1);
  }
  return 0;
}

long ContextSwitches(pid_t pid) {
  long sum = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    const std::string status = "task/" + task.path().filename().string() + "/status";
    sum += ProcField(pid, status, "voluntary_ctxt_switches") + ProcField(pid, status, "nonvoluntary_ctxt_switches");
  }
  return sum;
}

Line::Line(const std::string& mode) {
  Text("peer", "nira_ipc").Text("mode", mode);
}

Line& Line::Text(const std::string& key, const std::string& value) {
  std::string quoted = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c >= 0 && c < ' ' ? ' ' : c;
  }
  return Raw(key, quoted + "\"");
}

Line& Line::Figure(const std::string& key, double value) {
  return Raw(key, Decimal(value));
}

Line& Line::Raw(const std::string& key, const std::string& json) {
  m_Members += (m_Members.empty() ? "{\"" : ",\"") + key + "\":" + json;
  return *this;
}

Line& Line::Sizes(pid_t service, pid_t app) {
  Count("rss_srv_kib", ProcField(service, "status", "VmRSS")).Count("rss_cli_kib", ProcField(app, "status", "VmRSS"));
  Count("rss_other_kib", 0);
  Count("rss_anon_srv_kib", ProcField(service, "status", "RssAnon"));
  Count("rss_anon_cli_kib", ProcField(app, "status", "RssAnon"));
  return Count("private_srv_kib", PrivateKib(service)).Count("private_cli_kib", PrivateKib(app));
}

Section::Section(pid_t service)
    : m_Service(service), m_Start(NowUs()), m_ServiceStart(CpuUs(service)), m_AppStart(CpuUs(getpid())) {}

Line& Section::Finish(Line& line, long calls, std::vector<double> latencies) const {
  const double wall = NowUs() - m_Start, number = static_cast<double>(calls);
  const double service = (CpuUs(m_Service) - m_ServiceStart) / number, app = (CpuUs(getpid()) - m_AppStart) / number;
  line.Count("calls", calls).Figure("rate", number / wall * 1e6);
  if (!latencies.empty()) {
    std::sort(latencies.begin(), latencies.end());
    line.Figure("p50_us", Percentile(latencies, 50)).Figure("p99_us", Percentile(latencies, 99));
    line.Figure("p999_us", Percentile(latencies, 99.9));
  }
  line.Figure("cpu_us", service + app).Figure("cpu_srv_us", service).Figure("cpu_cli_us", app);
  return line.Figure("cpu_other_us", 0);
}

std::string Distribution(std::vector<double> latencies) {
  std::sort(latencies.begin(), latencies.end());
  std::string json = "[";
  for (int permille = 10; permille < 1000; permille += permille < 990 ? 10 : 1) {
    const double percent = permille / 10.0;
    json += (permille == 10 ? "[" : ",[") + Decimal(percent) + "," + Decimal(Percentile(latencies, percent)) + "]";
  }
  return json + "]";
}
