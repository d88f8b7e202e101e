/* The idle footprint's reference: a process that loads the client's shared
 * libraries (run.sh links it against every one with --no-as-needed) and has
 * as many threads as the client, all asleep, until SIGTERM. It prints
 * "ready" once its threads are up. */
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static void* Sleep(void* unused) {
    (void)unused;
    for (;;) {
        pause(); /* every signal is blocked: never returns */
    }
    return NULL;
}

int main(int argc, char** argv) {
    const int threads = argc > 1 ? atoi(argv[1]) : 1;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);
    for (int i = 1; i < threads; ++i) {
        pthread_t thread;
        if (pthread_create(&thread, NULL, Sleep, NULL) != 0) {
            perror("pthread_create");
            return 1;
        }
    }
    printf("ready\n");
    fflush(stdout);
    int received = 0;
    sigwait(&signals, &received);
    return 0;
}
