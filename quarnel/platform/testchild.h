// Test seam: a second process of this program, for tests of what one process
// sees of the files another holds open. The child is a fork of the caller:
// it runs `work`, reports the result, and then waits until Release, so that
// whatever `work` opened stays open meanwhile. Not exported: tests link the
// library's objects.
#ifndef QUARNEL_PLATFORM_TESTCHILD_H_
#define QUARNEL_PLATFORM_TESTCHILD_H_

class UTestChild {
 public:
  UTestChild() = default;
  ~UTestChild();  // Release
  UTestChild(const UTestChild&) = delete;
  UTestChild& operator=(const UTestChild&) = delete;

  // Forks; returns what `work(arg)` returned in the child, or -1 when no
  // child could be started (or it ended without answering).
  int Start(int (*work)(void* arg), void* arg);
  // Lets the child end and waits for it. Nothing when none runs.
  void Release();

 private:
  int pid_ = -1;
  int release_ = -1;  // the parent's end of the pipe the child waits on
};

#endif  // QUARNEL_PLATFORM_TESTCHILD_H_
