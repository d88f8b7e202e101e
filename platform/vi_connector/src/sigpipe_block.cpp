#include "sigpipe_block.hpp"

#include <pthread.h>
#include <signal.h>

#include <ctime>

namespace vi_connector {

SigpipeBlock::SigpipeBlock() {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    sigset_t old;
    pthread_sigmask(SIG_BLOCK, &pipe, &old);
    wasBlocked_ = sigismember(&old, SIGPIPE) == 1;
}

SigpipeBlock::~SigpipeBlock() {
    if (!wasPending_) {
        Discard();
    }
    if (!wasBlocked_) {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    }
}

void SigpipeBlock::Discard() {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    const timespec now{0, 0};
    while (sigtimedwait(&pipe, nullptr, &now) == SIGPIPE) {
    }
}

}  // namespace vi_connector
