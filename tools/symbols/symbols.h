// Program counters to function, file and line through elfutils' libdw, for
// the images of one process placed where the process had them.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "snapshot/reader.h"

namespace qmtool {

struct Frame {
  uint64_t pc = 0;
  std::string function;  // demangled; empty when unknown
  std::string file;      // empty when unknown
  int line = 0;
  std::string module;    // the image's file name
  uint64_t offset = 0;   // of pc in it
  bool inlined = false;  // a call inlined into the next frame
};

class Symbolizer {
 public:
  // The images as the snapshot lists them; the executable (the unnamed one)
  // is executable.
  Symbolizer(const std::vector<Image>& images, const std::string& executable);
  ~Symbolizer();
  // The frames of a return address (one, or more when calls were inlined
  // there), innermost first.
  std::vector<Frame> frames(uint64_t pc);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

std::string demangle(const std::string& name);

}  // namespace qmtool
