// What the benchmark measures with: clocks, what /proc tells of a process, percentiles, and the line that a mode
// prints.
#ifndef NIRA_IPC_BENCH_MEASURE_H
#define NIRA_IPC_BENCH_MEASURE_H

#include <sys/types.h>

#include <string>
#include <vector>

// Microseconds on the monotonic clock.
double NowUs();

// The value of a "key: number" line in a file of /proc/PID; 0 when there is none.
long ProcField(pid_t pid, const std::string& file, const std::string& key);

// Context switches of all threads of a process since it started.
long ContextSwitches(pid_t pid);

// One mode's result: a JSON object on one line.
class Line {
 public:
  explicit Line(const std::string& mode);
  Line& Text(const std::string& key, const std::string& value);
  Line& Count(const std::string& key, long value) { return Raw(key, std::to_string(value)); }
  Line& Figure(const std::string& key, double value);
  Line& Raw(const std::string& key, const std::string& json);

  // The current sizes of both processes: resident, its anonymous part, and what is shared with no other process.
  Line& Sizes(pid_t service, pid_t app);

  std::string Json() const { return m_Members + "}"; }

 private:
  std::string m_Members;
};

// A measured section: wall time, and the processor time of the service and of this process.
class Section {
 public:
  explicit Section(pid_t service);

  // Ends it and tells what one of `calls` cost. No percentiles when there are no latencies.
  Line& Finish(Line& line, long calls, std::vector<double> latencies) const;

 private:
  const pid_t m_Service;
  const double m_Start, m_ServiceStart, m_AppStart;
};

// The percentiles 1 to 99.9 as [[percent, microseconds], ...].
std::string Distribution(std::vector<double> latencies);

#endif  // NIRA_IPC_BENCH_MEASURE_H
