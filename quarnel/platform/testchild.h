// Test seam: a second process of this program, for tests of what one process
// sees of the files another holds open. The child runs `work`, reports the
// result, and then waits until Release, so that whatever `work` opened stays
// open meanwhile. Not exported: tests link the library's objects.
//
// On Linux the child is a fork of the caller. On Windows it is this program
// started again with the rerun arguments added to its command line (the test
// support makes them run the same test): it runs the test up to its own
// Start with the same sequence number in the test, and there runs `work`
// instead of starting a child; its output goes nowhere.
#ifndef QUARNEL_PLATFORM_TESTCHILD_H_
#define QUARNEL_PLATFORM_TESTCHILD_H_

class UTestChild {
 public:
  UTestChild() = default;
  ~UTestChild();  // Release
  UTestChild(const UTestChild&) = delete;
  UTestChild& operator=(const UTestChild&) = delete;

  // Starts the child; returns what `work(arg)` returned there, or -1 when no
  // child could be started (or it ended without answering).
  int Start(int (*work)(void* arg), void* arg);
  // Lets the child end and waits for it. Nothing when none runs.
  void Release();

  // The arguments a child on Windows gets (nothing on Linux); the Starts and
  // Spawns that follow are numbered afresh, as in the child that runs them.
  static void SetRerunArguments(const char* arguments);
  // True in a child started again on Windows (always false on Linux).
  static bool InChild();
  // Starts a child that runs `work(arg)` and ends with its result (0..255)
  // as exit status, without waiting for it (a fork on Linux, this program
  // started again on Windows). 0, or -1 when no child started.
  int Spawn(int (*work)(void* arg), void* arg);
  // Waits for the spawned child: its exit status, or -1 when a signal ended it.
  int Wait();
  // Ends the child at once (SIGKILL, TerminateProcess) and waits for it.
  void Kill();

 private:
  int pid_ = -1;
  int release_ = -1;  // the parent's end of the pipe the child waits on
  // Windows: the child, the event it waits on, and the spawned child.
  [[maybe_unused]] void* process_ = nullptr;
  [[maybe_unused]] void* releaseEvent_ = nullptr;
  [[maybe_unused]] void* spawned_ = nullptr;
};

#endif  // QUARNEL_PLATFORM_TESTCHILD_H_
