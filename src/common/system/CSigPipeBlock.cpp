#include "common/system/CSigPipeBlock.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>

namespace zelph {
namespace {

bool IsSigPipePending() noexcept {
  sigset_t pending;
  sigemptyset(&pending);
  return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

CSigPipeBlock::CSigPipeBlock() noexcept {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  wasPending_ = IsSigPipePending();
  pthread_sigmask(SIG_BLOCK, &pipe, &oldMask_);
}

CSigPipeBlock::~CSigPipeBlock() {
  if (!wasPending_ && IsSigPipePending()) {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    const timespec noWait{};
    const int savedErrno = errno;
    while (sigtimedwait(&pipe, nullptr, &noWait) < 0 && errno == EINTR) {
    }
    errno = savedErrno;
  }
  pthread_sigmask(SIG_SETMASK, &oldMask_, nullptr);
}

}  // namespace zelph
