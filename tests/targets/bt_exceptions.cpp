// C++ exceptions thrown through many frames from several threads: each
// thread descends 200 frames (each holding a string and an object whose
// destructor counts) and throws from the bottom; every 50th frame catches,
// adds to the message and rethrows; the top catches. Each frame also makes
// and frees a block, so that the heap (and with the agent the capture of
// stacks) runs between the unwinder's steps. What the program prints does
// not depend on the timing: a line per thread, then a summary.
// Usage: bt_exceptions [threads] [throws per thread] [frames]
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

thread_local long destroyed;

struct Counted {
  long n;
  explicit Counted(long v) : n(v) {}
  ~Counted() { destroyed += n != 0 ? 1 : 0; }
};

struct Failure : std::runtime_error {
  int depth;
  Failure(const std::string& w, int d) : std::runtime_error(w), depth(d) {}
};

__attribute__((noinline)) int descend(int depth, int frames, int round) {
  Counted c(depth + 1);
  std::string here = "frame " + std::to_string(depth);
  void* scratch = std::malloc(16 + static_cast<size_t>(depth) % 64);
  __asm__ volatile("" : : "r"(scratch) : "memory");
  std::free(scratch);
  if (depth == frames) throw Failure("bottom of round " + std::to_string(round), depth);
  if (depth % 50 == 25) {
    try {
      return descend(depth + 1, frames, round) + static_cast<int>(here.size());
    } catch (Failure& f) {
      throw Failure(std::string(f.what()) + " via " + here, f.depth);
    }
  }
  return descend(depth + 1, frames, round) + static_cast<int>(here.size());
}

struct Result {
  int caught = 0;
  unsigned long checksum = 0;
  long destroyed = 0;
};

void run(int throws, int frames, Result* r) {
  for (int i = 0; i < throws; ++i) {
    try {
      descend(0, frames, i);
    } catch (Failure& f) {
      ++r->caught;
      for (char ch : std::string(f.what())) r->checksum = r->checksum * 31 + static_cast<unsigned char>(ch);
      r->checksum += static_cast<unsigned long>(f.depth);
    }
  }
  r->destroyed = destroyed;
}

}  // namespace

int main(int argc, char** argv) {
  int threads = argc > 1 ? std::atoi(argv[1]) : 4;
  int throws = argc > 2 ? std::atoi(argv[2]) : 50;
  int frames = argc > 3 ? std::atoi(argv[3]) : 200;
  std::vector<Result> results(threads);
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) pool.emplace_back(run, throws, frames, &results[t]);
  for (auto& t : pool) t.join();
  int caught = 0;
  for (int t = 0; t < threads; ++t) {
    std::printf("thread %d: %d caught, checksum %lx, %ld destroyed\n", t, results[t].caught, results[t].checksum,
                results[t].destroyed);
    caught += results[t].caught;
  }
  std::printf("bt_exceptions: %d of %d caught\n", caught, threads * throws);
  return caught == threads * throws ? 0 : 1;
}
