// Which kind of build the device runs, from its marker files. No state: any thread may ask, and every answer is new.
#ifndef NIRA_IPC_TV_MODE_CHECKER_H
#define NIRA_IPC_TV_MODE_CHECKER_H

enum NIRA_TV_MODE {
  NIRA_TV_MODE_UNDEFINED = 0,
  NIRA_TV_MODE_DEBUG = 1,
  NIRA_TV_MODE_PERF = 2,
  NIRA_TV_MODE_RELEASE = 3,
};

class CNiraTVModeChecker {
 public:
  int GetTVMode() const;
  bool IsDebugMode() const;
  bool IsPerfMode() const;
  bool IsReleaseMode() const;

 private:
  static int m_GetTVMode();
};

#endif  // NIRA_IPC_TV_MODE_CHECKER_H
