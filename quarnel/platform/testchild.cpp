#include "quarnel/platform/testchild.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

UTestChild::~UTestChild() { Release(); }

int UTestChild::Start(int (*work)(void* arg), void* arg) {
  Release();
  int answer[2], wait[2];
  if (pipe(answer) != 0) return -1;
  if (pipe(wait) != 0) {
    close(answer[0]);
    close(answer[1]);
    return -1;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    close(answer[0]);
    close(wait[1]);
    const int result = work(arg);
    (void)!write(answer[1], &result, sizeof result);
    char c;
    (void)!read(wait[0], &c, 1);  // returns when the parent releases or ends
    _exit(0);
  }
  close(answer[1]);
  close(wait[0]);
  if (pid < 0) {
    close(answer[0]);
    close(wait[1]);
    return -1;
  }
  pid_ = pid;
  release_ = wait[1];
  int result = -1;
  if (read(answer[0], &result, sizeof result) != static_cast<ssize_t>(sizeof result)) result = -1;
  close(answer[0]);
  return result;
}

void UTestChild::Release() {
  if (pid_ < 0) return;
  if (release_ >= 0) close(release_);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  release_ = -1;
}

void UTestChild::SetRerunArguments(const char*) {}

bool UTestChild::InChild() { return false; }
int UTestChild::Spawn(int (*work)(void* arg), void* arg) {
  Release();
  const pid_t pid = fork();
  if (pid == 0) _exit(work(arg) & 0xFF);
  if (pid < 0) return -1;
  pid_ = pid;
  return 0;
}

int UTestChild::Wait() {
  if (pid_ < 0) return -1;
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void UTestChild::Kill() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  Wait();
}
