// Keeping the agent in the programs a watched process starts: which agent
// library suits a program file, which variables travel with it, and the
// environment the new program gets.
//
// Nothing here uses the heap or takes a lock: exec may be called in a child
// of vfork, which shares its parent's memory.
#pragma once
#include <stddef.h>

extern "C" {

typedef enum program_model_e { pm_unknown = 0, pm_dont_care = 1, pm_32bit = 2, pm_64bit = 3 } program_model_e;

typedef struct hia_preloading_info_t {
  const char* const* libs;  // library file names
  int nlibs;
  int index_of_hia;  // which of them is the agent
  program_model_e pm;
} hia_preloading_info_t;

// The model of an open file (its position restored): pm_32bit or pm_64bit for
// an ELF file of that class, else pm_unknown.
program_model_e QM_pm_fd_get_program_model(int fd);
program_model_e QM_pm_self_get_program_model();
int QM_preloading_is_pm_supported(program_model_e pm);
// The file that will run for path, opened read-only: path itself, or for a
// script the interpreter its "#!" line names (/bin/sh when it names none);
// one level only. -1 on any failure.
int QM_execve_find_and_open_exe(const char* path);
// 0, or -1 for a null info or an unsupported model.
int QM_HEAP_preloading_get_hia_info(program_model_e pm, hia_preloading_info_t* info);
// 0 or -1; info->pm is pm_unknown when the file cannot be opened.
int QM_HEAP_preloading_get_hia_info_for_exe(const char* path, hia_preloading_info_t* info);
// The agent library's file name for a model, or null.
const char* QM_HEAP_get_hia_name(program_model_e pm);
const char* QM_HEAP_get_hia_name_self();

// Variables copied into a new program's environment when it lacks them.
// Up to 32 names, kept sorted. -1 when the table is full.
int QM_execve_env_var_register_for_propagation(const char* name);
// Compared over len characters only: a leading part of a registered name
// counts as registered.
int QM_execve_env_var_is_registered_for_propagation(const char* name, int len);
extern volatile int QM_HEAP_execve_env_var_auto_propagate;
int QM_HEAP_execve_env_var_get_auto_propagate();
int QM_HEAP_execve_env_var_set_auto_propagate(int bool_val);

// Remembers, in the agent's own storage, the preload entry and the
// registered variables of the environment as the agent starts: a program
// that empties its own environment later (clearenv, perl's local %ENV) still
// hands them on. Called once at start-up.
void QM_execve_remember_environment();

// The index of the entry that defines exactly name (len characters, then
// "="), or -1.
int QM_env_find_index_of_definition(const char* name, int len, char* const* envp);

const char* QM_execve_get_default_search_path();
const char* QM_execve_get_default_interpreter();
}

namespace qm {

// The environment a new program gets, planned from the process's own
// environment (own), the one the caller passes (envp) and the new program's
// model, then built into memory the caller provides.
struct EnvironmentPlan {
  char* const* own;
  char* const* envp;
  int num_entries;      // of envp
  int preload_index;    // of "LD_PRELOAD" in envp, or -1
  int num_propagated;   // registered variables of own that envp lacks
  const char* dir;      // of the agent's entry in own LD_PRELOAD
  int dir_len;
  const char* lib;      // the new program's agent library; null: no edit
  size_t preload_len;   // of the new "LD_PRELOAD=..." entry, NUL included
  size_t size;          // of the block build_environment fills; 0: envp as it is
};

// The process's environment as far as a new program's needs it, into out
// (cap pointers, null-terminated): the preload entry and the registered
// variables of environ, and those remembered at start-up that environ no
// longer defines.
void own_environment(char* const* environ_now, char** out, int cap);

// Plans the new environment; plan->size is 0 when envp serves unchanged.
// Registered variables of own that envp lacks are added (none when envp is
// own's source and nothing was lost since start-up).
void plan_environment(char* const* own, char* const* envp, program_model_e new_pm, EnvironmentPlan* plan);
// Builds it into block (plan.size bytes) and returns it.
char** build_environment(const EnvironmentPlan& plan, void* block);

// The model of the program an exec of file would run: file itself when it
// holds a "/", else the first candidate along the search path (the
// process's PATH, or the default) that opens. pm_unknown when none does.
program_model_e program_model_of_command(const char* file);

}  // namespace qm
