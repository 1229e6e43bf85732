/* A program that handles its own SIGSEGV, the way runtimes with managed
 * memory do. Run with and without the agent, it must print the same and end
 * the same way.
 *
 *   retry       an SA_SIGINFO handler makes a PROT_NONE page readable and
 *               returns, so the access runs again (a safepoint poll)
 *   recover     a handler leaves by siglongjmp, a thousand times (a nil check
 *               turned into a panic); the mask is whole afterwards
 *   old         what sigaction and signal report as the previous action
 *   ignore      SIGSEGV ignored: a sent one is ignored, a fault still ends
 *               the process
 *   default     a fault with no handler
 *   blocked     a fault while SIGSEGV is blocked
 *   resethand   SA_RESETHAND: the second fault takes the default action
 *   masks       what is blocked inside handlers with and without SA_NODEFER
 *               and with an sa_mask
 *   sysv        sysv_signal: reset on delivery, not blocked in the handler
 *   overflow    a thread with a small stack recurses until it overflows; its
 *               SA_ONSTACK handler runs on the alternate stack and leaves by
 *               siglongjmp (a runtime growing or reporting a stack)
 *   redzone     the program's handler is installed, then a block is overrun:
 *               the agent reports it (with red zones on) and the program's
 *               handler sees only its own faults
 */
#define _GNU_SOURCE
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

static char* page;
static size_t pagesize;
static volatile sig_atomic_t hits;
static sigjmp_buf jb;
static volatile char sink;

static char* inaccessible_page(void) {
  return mmap(NULL, pagesize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

static void open_page(int sig, siginfo_t* si, void* ctx) {
  (void)sig;
  (void)ctx;
  hits++;
  if (si->si_addr == page) mprotect(page, pagesize, PROT_READ | PROT_WRITE);
}

static void jump_out(int sig) {
  (void)sig;
  hits++;
  siglongjmp(jb, 1);
}

static int blocked(int sig) {
  sigset_t now;
  sigprocmask(SIG_BLOCK, NULL, &now);
  return sigismember(&now, sig);
}

static volatile int seen_segv_blocked, seen_usr1_blocked;
static void note_mask(int sig) {
  (void)sig;
  hits++;
  seen_segv_blocked = blocked(SIGSEGV);
  seen_usr1_blocked = blocked(SIGUSR1);
  mprotect(page, pagesize, PROT_READ);
}

static const char* name(void (*h)(int)) {
  if (h == SIG_DFL) return "SIG_DFL";
  if (h == SIG_IGN) return "SIG_IGN";
  if (h == jump_out) return "jump_out";
  if (h == note_mask) return "note_mask";
  return "other";
}

static void install(void (*h)(int), int flags, int mask_sig) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = h;
  sa.sa_flags = flags;
  sigemptyset(&sa.sa_mask);
  if (mask_sig) sigaddset(&sa.sa_mask, mask_sig);
  sigaction(SIGSEGV, &sa, NULL);
}

static void fault(void) { sink = page[0]; }

static int recurse(int n) {
  volatile char frame[512];
  frame[0] = (char)n;
  return recurse(n + 1) + frame[0];
}

static void* overflow_thread(void* arg) {
  (void)arg;
  stack_t ss;
  memset(&ss, 0, sizeof ss);
  ss.ss_size = 64 * 1024;
  ss.ss_sp = mmap(NULL, ss.ss_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  sigaltstack(&ss, NULL);
  if (sigsetjmp(jb, 1) == 0) recurse(0);
  return NULL;
}

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "";
  setvbuf(stdout, NULL, _IONBF, 0);
  pagesize = (size_t)sysconf(_SC_PAGESIZE);
  page = inaccessible_page();

  if (strcmp(mode, "retry") == 0) {
    struct sigaction sa, old;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = open_page;
    sa.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(SIGSEGV, &sa, &old);
    fault();
    page[1] = 7;
    printf("retry: %d fault(s), page now writable, %d\n", (int)hits, page[1]);
  } else if (strcmp(mode, "recover") == 0) {
    install(jump_out, 0, 0);
    for (int i = 0; i < 1000; ++i)
      if (sigsetjmp(jb, 1) == 0) fault();
    printf("recover: %d, SIGSEGV blocked after: %d\n", (int)hits, blocked(SIGSEGV));
  } else if (strcmp(mode, "old") == 0) {
    struct sigaction sa, old;
    sigaction(SIGSEGV, NULL, &old);
    printf("first: %s\n", name(old.sa_handler));
    install(jump_out, SA_RESTART, 0);
    printf("signal returned: %s\n", name(signal(SIGSEGV, note_mask)));
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = SIG_IGN;
    sigaction(SIGSEGV, &sa, &old);
    printf("sigaction returned: %s\n", name(old.sa_handler));
    sigaction(SIGSEGV, NULL, &old);
    printf("now: %s\n", name(old.sa_handler));
    printf("unclaimed SIGUSR2: %s\n", name(signal(SIGUSR2, jump_out)));
    printf("unclaimed SIGUSR2 again: %s\n", name(signal(SIGUSR2, SIG_DFL)));
  } else if (strcmp(mode, "ignore") == 0) {
    signal(SIGSEGV, SIG_IGN);
    kill(getpid(), SIGSEGV);
    printf("ignore: a sent SIGSEGV was ignored\n");
    fault();
    printf("ignore: not reached\n");
  } else if (strcmp(mode, "default") == 0) {
    fault();
    printf("default: not reached\n");
  } else if (strcmp(mode, "blocked") == 0) {
    install(jump_out, 0, 0);
    sigset_t s;
    sigemptyset(&s);
    sigaddset(&s, SIGSEGV);
    sigprocmask(SIG_BLOCK, &s, NULL);
    printf("blocked: %d\n", blocked(SIGSEGV));
    fault();
    printf("blocked: not reached\n");
  } else if (strcmp(mode, "resethand") == 0) {
    install(note_mask, SA_RESETHAND, 0);
    fault();
    struct sigaction old;
    sigaction(SIGSEGV, NULL, &old);
    printf("resethand: %d, now %s\n", (int)hits, name(old.sa_handler));
    mprotect(page, pagesize, PROT_NONE);
    fault();
    printf("resethand: not reached\n");
  } else if (strcmp(mode, "masks") == 0) {
    install(note_mask, 0, SIGUSR1);
    fault();
    printf("plain: SIGSEGV blocked %d, SIGUSR1 blocked %d\n", seen_segv_blocked, seen_usr1_blocked);
    mprotect(page, pagesize, PROT_NONE);
    install(note_mask, SA_NODEFER, 0);
    fault();
    printf("nodefer: SIGSEGV blocked %d, SIGUSR1 blocked %d\n", seen_segv_blocked, seen_usr1_blocked);
    printf("after: SIGSEGV blocked %d, SIGUSR1 blocked %d\n", blocked(SIGSEGV), blocked(SIGUSR1));
  } else if (strcmp(mode, "sysv") == 0) {
    printf("sysv: previous %s\n", name(sysv_signal(SIGSEGV, note_mask)));
    fault();
    printf("sysv: %d, SIGSEGV blocked in handler %d, now %s\n", (int)hits, seen_segv_blocked,
           name(signal(SIGSEGV, SIG_DFL)));
  } else if (strcmp(mode, "overflow") == 0) {
    install(jump_out, SA_ONSTACK, 0);
    pthread_attr_t a;
    pthread_attr_init(&a);
    pthread_attr_setstacksize(&a, 256 * 1024);
    pthread_t t;
    pthread_create(&t, &a, overflow_thread, NULL);
    pthread_join(t, NULL);
    printf("overflow: caught %d\n", (int)hits);
  } else if (strcmp(mode, "redzone") == 0) {
    install(jump_out, 0, 0);
    if (sigsetjmp(jb, 1) == 0) fault();
    printf("redzone: own fault handled %d\n", (int)hits);
    char* p = malloc(10);
    sink = p[16];
    printf("redzone: overrun not caught, %d\n", (int)hits);
  } else {
    fprintf(stderr, "sighandlers: unknown mode %s\n", mode);
    return 2;
  }
  return 0;
}
