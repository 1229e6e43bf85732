// A correct C++ program whose memory is still in use at exit in every way
// C++ keeps it: static containers, a function-local static, a singleton
// made with new and never deleted, a string table, a thread still running
// (its vector on its stack), a thread_local container, an array made with
// new[] (its pointer past the count the runtime keeps in front). Nothing here is lost: not while
// it runs (a scan through the agent's control function, when it is there)
// nor at exit, after the static destructors.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <dlfcn.h>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

std::map<int, std::string> names;
std::unordered_map<std::string, std::vector<int>> index_of;
std::vector<std::unique_ptr<std::string>> owned;

struct Registry {
  std::vector<std::string> entries;
  static Registry& get() {
    static Registry r;
    return r;
  }
};

struct Singleton {
  std::map<std::string, double> values;
};
Singleton* instance = nullptr;

struct Counted {
  std::string s;
  ~Counted() {}
};
Counted* array = nullptr;

thread_local std::vector<std::string> per_thread;
std::atomic<bool> started{false};

}  // namespace

int main() {
  for (int i = 0; i < 500; ++i) {
    names[i] = "name number " + std::to_string(i) + std::string(i % 40, 'x');
    index_of[names[i]].assign(i % 9 + 1, i);
    owned.push_back(std::make_unique<std::string>(names[i] + " owned"));
    Registry::get().entries.push_back(names[i].substr(0, 20) + std::string(30, 'r'));
  }
  instance = new Singleton;
  for (int i = 0; i < 100; ++i) instance->values["v" + std::to_string(i) + std::string(30, 'v')] = i;
  array = new Counted[7];
  for (int i = 0; i < 7; ++i) array[i].s = std::string(40, static_cast<char>('a' + i));
  per_thread.assign(10, std::string(50, 't'));
  std::thread([] {
    std::vector<std::string> mine(20, std::string(60, 'm'));
    per_thread.assign(5, std::string(45, 'p'));
    started = true;
    for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
  }).detach();
  while (!started) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  using scan_fn = int (*)(int, long*);
  if (auto scan = reinterpret_cast<scan_fn>(dlsym(RTLD_DEFAULT, "QM_HIA_API_scan_reachability"))) scan(1, nullptr);
  std::printf("cxx_statics: %zu names, %zu registry entries\n", names.size(), Registry::get().entries.size());
  std::fflush(stdout);
  std::exit(0);
}
