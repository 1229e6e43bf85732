// A C++ program with threads, exceptions, iostreams and fork: a real program's
// use of the heap through the C++ runtime.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

static int work(int id) {
  std::map<int, std::string> m;
  int caught = 0;
  for (int i = 0; i < 20000; ++i) {
    m[i % 977] = std::to_string(i * id);
    auto v = std::make_unique<std::vector<int>>(static_cast<size_t>(i % 64));
    if (i % 1000 == 0) {
      try {
        throw std::runtime_error("thrown " + std::to_string(i));
      } catch (const std::exception& e) {
        caught += std::string(e.what()).size() > 6;
      }
    }
  }
  return static_cast<int>(m.size()) + caught;
}

int main() {
  std::atomic<int> total{0};
  std::vector<std::thread> ts;
  for (int t = 1; t <= 4; ++t) ts.emplace_back([t, &total] { total += work(t); });
  // Fork while the others allocate: the child must be able to use the heap.
  pid_t pid = fork();
  if (pid == 0) {
    std::ostringstream os;
    os << "child " << work(9);
    _exit(os.str() == "child 997" ? 0 : 3);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  for (auto& t : ts) t.join();
  std::cout << "cxx_threads: total " << total << ", child " << WEXITSTATUS(status) << std::endl;
  return total == 4 * 997 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
