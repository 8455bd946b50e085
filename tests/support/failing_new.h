// An operator new that fails when a test says so.
#ifndef NIRA_IPC_TESTS_FAILING_NEW_H
#define NIRA_IPC_TESTS_FAILING_NEW_H

// Which of the calling thread's allocations from here on is to fail, the first being 1; 0: none. Gives what was left of
// the number before: 0 if that allocation has failed.
int FailAllocation(int number);

#endif  // NIRA_IPC_TESTS_FAILING_NEW_H
