// The environment a new program gets, and the model of the file it runs.
#include "propagate/preloading.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

// An environment as the tests write it, with its char* array.
struct Env {
  std::vector<std::string> text;
  std::vector<char*> ptrs;
  explicit Env(std::vector<std::string> entries) : text(std::move(entries)) {
    for (auto& s : text) ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
  }
  char* const* get() { return ptrs.data(); }
};

std::vector<std::string> new_environment(char* const* own, char* const* envp, program_model_e pm) {
  qm::EnvironmentPlan plan;
  qm::plan_environment(own, envp, pm, &plan);
  std::vector<std::string> out;
  if (plan.size == 0) return {"unchanged"};
  std::vector<char> block(plan.size);
  for (char** e = qm::build_environment(plan, block.data()); *e != nullptr; ++e) out.push_back(*e);
  return out;
}

const std::string self = QM_HEAP_get_hia_name_self();
const std::string other = self == "libqmheap.so" ? "libqmheap_64.so" : "libqmheap.so";
const program_model_e self_pm = QM_pm_self_get_program_model();
const program_model_e other_pm = self_pm == pm_32bit ? pm_64bit : pm_32bit;

TEST(Environment, TheNewProgramGetsTheLibraryOfItsModelFromTheAgentsDirectory) {
  Env own({"HOME=/root", "LD_PRELOAD=/opt/a/lib/" + self, "QMHEAP_ARGS=verbosity=2"});
  EXPECT_EQ(new_environment(own.get(), own.get(), self_pm), std::vector<std::string>{"unchanged"});
  EXPECT_EQ(new_environment(own.get(), own.get(), other_pm),
            (std::vector<std::string>{"HOME=/root", "LD_PRELOAD=/opt/a/lib/" + other, "QMHEAP_ARGS=verbosity=2"}));
}

TEST(Environment, AnExplicitEnvironmentGetsThePreloadAndTheRegisteredVariablesAfterItsOwn) {
  Env own({"QMHEAP_ARGS=verbosity=2", "PATH=/bin", "LD_PRELOAD=" + self, "QMSTACK_DONT_WANT_UNWIND_FIND_FDE_CACHE=1",
           "QMHEAP_CONFIG_FILE="});
  Env envp({"A=1", "QMHEAP_CONFIG_FILE=/mine"});
  EXPECT_EQ(new_environment(own.get(), envp.get(), other_pm),
            (std::vector<std::string>{"A=1", "QMHEAP_CONFIG_FILE=/mine", "LD_PRELOAD=" + other,
                                      "QMHEAP_ARGS=verbosity=2", "QMSTACK_DONT_WANT_UNWIND_FIND_FDE_CACHE=1"}));
  // An empty environment.
  Env none({});
  EXPECT_EQ(new_environment(own.get(), none.get(), self_pm),
            (std::vector<std::string>{"LD_PRELOAD=" + self, "QMHEAP_ARGS=verbosity=2",
                                      "QMSTACK_DONT_WANT_UNWIND_FIND_FDE_CACHE=1", "QMHEAP_CONFIG_FILE="}));
}

TEST(Environment, AgentEntriesAreReplacedOthersKeptInOrderWhateverTheSeparators) {
  Env own({"LD_PRELOAD=/d/" + self});
  Env envp({"LD_PRELOAD= /x/libfoo.so::/q/libqmheap.so /y/libqmheap_64.so libbar.so  libqmheap_64.so:/z/xlibqmheap.so "});
  EXPECT_EQ(new_environment(own.get(), envp.get(), other_pm),
            (std::vector<std::string>{"LD_PRELOAD=/d/" + other + ":/x/libfoo.so:libbar.so:/z/xlibqmheap.so"}));
  Env empty({"LD_PRELOAD="});
  EXPECT_EQ(new_environment(own.get(), empty.get(), self_pm), (std::vector<std::string>{"LD_PRELOAD=/d/" + self}));
  // Already first and alone: nothing to change.
  Env same({"LD_PRELOAD=/d/" + self, "B=2"});
  EXPECT_EQ(new_environment(own.get(), same.get(), self_pm), std::vector<std::string>{"unchanged"});
}

TEST(Environment, WithoutAKnownModelOrAPreloadedAgentOnlyVariablesTravel) {
  Env own({"LD_PRELOAD=/d/" + self, "QMHEAP_ARGS=x"});
  Env envp({"A=1", "LD_PRELOAD=/x/libfoo.so"});
  EXPECT_EQ(new_environment(own.get(), envp.get(), pm_unknown),
            (std::vector<std::string>{"A=1", "LD_PRELOAD=/x/libfoo.so", "QMHEAP_ARGS=x"}));
  // The agent reached the process some other way: no preload edit.
  Env bare({"QMHEAP_ARGS=x", "LD_PRELOAD=/x/libfoo.so"});
  EXPECT_EQ(new_environment(bare.get(), envp.get(), self_pm),
            (std::vector<std::string>{"A=1", "LD_PRELOAD=/x/libfoo.so", "QMHEAP_ARGS=x"}));
  // Propagation off.
  const int old = QM_HEAP_execve_env_var_set_auto_propagate(0);
  EXPECT_EQ(new_environment(own.get(), envp.get(), pm_unknown), std::vector<std::string>{"unchanged"});
  QM_HEAP_execve_env_var_set_auto_propagate(old);
}

TEST(Registry, NamesAreComparedOverTheVariablesOwnLengthAndTheTableHoldsThirtyTwo) {
  EXPECT_TRUE(QM_execve_env_var_is_registered_for_propagation("QMHEAP_ARGS", 11));
  EXPECT_TRUE(QM_execve_env_var_is_registered_for_propagation("QMHEAP", 6));
  EXPECT_FALSE(QM_execve_env_var_is_registered_for_propagation("QMHEAP_ARGSX", 12));
  EXPECT_FALSE(QM_execve_env_var_is_registered_for_propagation("PATH", 4));
  Env own({"QMHEAP=1", "QMHEAP_DEEPBIND=verbose=true"});
  Env envp({});
  EXPECT_EQ(new_environment(own.get(), envp.get(), pm_unknown),
            (std::vector<std::string>{"QMHEAP=1", "QMHEAP_DEEPBIND=verbose=true"}));
  static std::vector<std::string> names;
  for (int i = 0; i < 40; ++i) names.push_back("ZZ_REGISTRY_TEST_" + std::to_string(100 + i));
  int registered = 0;
  for (auto& n : names)
    if (QM_execve_env_var_register_for_propagation(n.c_str()) == 0) ++registered;
  EXPECT_EQ(registered, 32 - 7);
  EXPECT_TRUE(QM_execve_env_var_is_registered_for_propagation("ZZ_REGISTRY_TEST_124", 20));
  EXPECT_FALSE(QM_execve_env_var_is_registered_for_propagation("ZZ_REGISTRY_TEST_125", 20));
  EXPECT_TRUE(QM_execve_env_var_is_registered_for_propagation("QMSTACK_DONT_WANT_UNWIND_FIND_FDE_CACHE", 39));
}

class Files : public ::testing::Test {
 protected:
  std::string dir;
  void SetUp() override {
    char tmpl[] = "/tmp/qm_models_XXXXXX";
    dir = mkdtemp(tmpl);
  }
  void TearDown() override { (void)system(("rm -rf " + dir).c_str()); }
  std::string file(const std::string& name, const std::string& content, mode_t mode = 0755) {
    std::string p = dir + "/" + name;
    std::ofstream(p, std::ios::binary) << content;
    chmod(p.c_str(), mode);
    return p;
  }
  static program_model_e model(const std::string& path) {
    hia_preloading_info_t info;
    QM_HEAP_preloading_get_hia_info_for_exe(path.c_str(), &info);
    return info.pm;
  }
};

TEST_F(Files, ModelsOfProgramsScriptsAndOtherFiles) {
  const std::string elf32 = file("p32", std::string("\x7f" "ELF\x01\x01\x01", 7) + std::string(40, '\0'));
  const std::string elf64 = file("p64", std::string("\x7f" "ELF\x02\x01\x01", 7) + std::string(40, '\0'));
  EXPECT_EQ(model(elf32), pm_32bit);
  EXPECT_EQ(model(elf64), pm_64bit);
  EXPECT_EQ(model(file("s1", "#!" + elf32 + " -x\necho\n")), pm_32bit);
  EXPECT_EQ(model(file("s2", "#! \t" + elf64 + "\n")), pm_64bit);
  // "#!" alone runs /bin/sh; only one level of "#!" is followed.
  hia_preloading_info_t sh;
  QM_HEAP_preloading_get_hia_info_for_exe("/bin/sh", &sh);
  EXPECT_EQ(model(file("s3", "#!\n")), sh.pm);
  EXPECT_EQ(model(file("s4", "#!" + dir + "/s1\n")), pm_unknown);
  EXPECT_EQ(model(file("text", "echo hello\n")), pm_unknown);
  EXPECT_EQ(model(file("short", "\x7f" "E")), pm_unknown);
  EXPECT_EQ(model(dir + "/missing"), pm_unknown);
  EXPECT_EQ(model(dir), pm_unknown);
  // The file position of an open file is kept.
  int fd = open(elf32.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  lseek(fd, 3, SEEK_SET);
  EXPECT_EQ(QM_pm_fd_get_program_model(fd), pm_32bit);
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 3);
  close(fd);
}

TEST_F(Files, ACommandIsFoundAlongThePathAsTheCLibrarySearchesIt) {
  file("prog", std::string("\x7f" "ELF\x01", 5) + std::string(40, '\0'));
  mkdir((dir + "/x").c_str(), 0755);
  mkdir((dir + "/y").c_str(), 0755);
  std::string y64 = dir + "/y/prog";
  std::ofstream(y64) << std::string("\x7f" "ELF\x02", 5) + std::string(40, '\0');
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir.c_str()), 0);
  const char* saved = getenv("PATH");
  std::string old = saved != nullptr ? saved : "";
  // /x has none; the empty element is the current directory, before /y.
  setenv("PATH", (dir + "/x::" + dir + "/y").c_str(), 1);
  EXPECT_EQ(qm::program_model_of_command("prog"), pm_32bit);
  setenv("PATH", (dir + "/x:" + dir + "/y").c_str(), 1);
  EXPECT_EQ(qm::program_model_of_command("prog"), pm_64bit);
  EXPECT_EQ(qm::program_model_of_command("./prog"), pm_32bit);
  EXPECT_EQ(qm::program_model_of_command("nothing-of-that-name"), pm_unknown);
  setenv("PATH", old.c_str(), 1);
  ASSERT_EQ(chdir(cwd), 0);
}

}  // namespace
