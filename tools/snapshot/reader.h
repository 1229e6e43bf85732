// A reader of the agent's memory-debug snapshot files, for every tool: the
// file is read by its table of contents (the last line points at it), or,
// when the file was cut short and has none, by its section comments.
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qmtool {

struct Record {
  uint64_t addr = 0, len = 0;
  int backtrace_id = 0;
  uint64_t thread_id = 0;
  uint64_t flags = 0;
  uint64_t org_addr = 0, org_len = 0;
  int org_backtrace_id = 0;
  int guard_id = 0;
  int generation = 0;
  bool pre_guard_bad = false, post_guard_bad = false;
};

struct Image {
  uint64_t base = 0;
  uint64_t dynamic = 0;
  std::string name;  // empty: the executable
};

struct Event {
  std::string name, op;
  Record first, second;
  uint64_t addr = 0, len = 0, alignment = 0;
};

// The extension section: the last reachability scan before the file was
// written. Blocks not listed were reachable.
struct Reachability {
  int sequence = 0;
  uint64_t blocks[4] = {}, bytes[4] = {};  // reachable, interior, definitely lost, indirectly lost
  int threads_stopped = 0, threads_not_stopped = 0;
  long microseconds = 0;
  std::map<uint64_t, std::string> kinds;  // block address -> "interior", "definitely_lost", "indirectly_lost"
};

struct Snapshot {
  std::string path;
  std::vector<Record> live, released;
  std::map<int, std::vector<uint64_t>> stacks;  // backtrace id -> program counters
  std::vector<uint64_t> current_stack;          // the writing thread's, untrimmed
  std::vector<Image> images;
  std::string executable, host;
  int pid = 0, bits = 0;
  int rank = -1;  // the MPI rank the file's name gives ("-rankN-"), or -1
  std::string version, distribution;
  bool has_event = false;
  Event event;
  bool has_reachability = false;
  Reachability reachability;
  std::vector<std::string> problems;  // what could not be read, in words
};

// Reads what it can; problems says what it could not. progress, when given,
// is told the number of lines read every million lines.
Snapshot read_snapshot(const std::string& path, void (*progress)(const std::string& path, size_t lines) = nullptr);

// The allocation line's record from its fields (starting at fields[at]);
// false when they do not parse.
bool parse_record(const std::vector<std::string>& fields, size_t at, Record* r);

std::vector<std::string> split(const std::string& line, char sep);

}  // namespace qmtool
