"""Writes a C project of UNITS generated translation units of about LINES
lines each (cgen.py's) into DIR, with a Makefile that builds three quarters
of them into a static library (ar), the rest into a shared library, and a
program of two more units linked against both; `make check` runs the
program, which prints every unit's result over a list of records it
allocates. Deterministic; the products are the same bytes wherever DIR is.
Usage: python3 cproject.py DIR [UNITS] [LINES], then make -C DIR -j2 -s all check"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import cgen  # noqa: E402

MAIN = r"""#include <stdio.h>
#include <stdlib.h>
#include "units.h"

/* A list of records on the heap that every unit walks and updates. */
int main(void) {
  enum { kRecords = 64 };
  struct rec* head = NULL;
  for (int i = kRecords - 1; i >= 0; --i) {
    struct rec* r = calloc(1, sizeof *r);
    if (r == NULL) return 1;
    r->id = i * 37;
    r->w = i / 4.0;
    snprintf(r->tag, sizeof r->tag, "rec-%d", i * i);
    r->next = head;
    head = r;
  }
  long* totals = malloc(sizeof(long) * UNITS);
  if (totals == NULL) return 1;
  for (int u = 0; u < UNITS; ++u) totals[u] = run_units[u](head);
  report(totals, UNITS, head);
  free(totals);
  while (head != NULL) {
    struct rec* next = head->next;
    free(head);
    head = next;
  }
  return 0;
}
"""

REPORT = r"""#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include "units.h"

static int by_value(const void* a, const void* b) {
  long x = *(const long*)a, y = *(const long*)b;
  return (x > y) - (x < y);
}

void report(const long* totals, int n, const struct rec* list) {
  long* sorted = malloc(sizeof(long) * (size_t)n);
  if (sorted == NULL) exit(1);
  memcpy(sorted, totals, sizeof(long) * (size_t)n);
  qsort(sorted, (size_t)n, sizeof(long), by_value);
  long sum = 0;
  for (int u = 0; u < n; ++u) {
    printf("unit %02d %ld\n", u, totals[u]);
    sum += totals[u];
  }
  long records = 0;
  for (const struct rec* r = list; r != NULL; r = r->next) records += r->sum ^ r->id;
  printf("units %d, sum %ld, median %ld, records %ld\n", n, sum, sorted[n / 2], records);
  free(sorted);
}
"""


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as f:
        f.write(text)


def main():
    top = sys.argv[1]
    units = int(sys.argv[2]) if len(sys.argv) > 2 else 40
    lines = int(sys.argv[3]) if len(sys.argv) > 3 else 400
    static = units - units // 4
    names = []
    for u in range(units):
        where = "lib" if u < static else "shlib"
        names.append("%s/u%02d" % (where, u))
        write(os.path.join(top, names[-1] + ".c"), cgen.unit(lines, "u%02d_" % u, 99991 + 7 * u))
    header = ["#ifndef UNITS_H\n#define UNITS_H\n",
              "struct rec { int id; long sum; double w; char tag[16]; struct rec* next; };\n",
              "#define UNITS %d\n" % units]
    header += ["long u%02d_run_all(struct rec*);\n" % u for u in range(units)]
    header.append("static long (*const run_units[UNITS])(struct rec*) = {\n%s};\n"
                  % "".join("  u%02d_run_all,\n" % u for u in range(units)))
    header.append("void report(const long* totals, int n, const struct rec* list);\n#endif\n")
    write(os.path.join(top, "include", "units.h"), "".join(header))
    write(os.path.join(top, "src", "main.c"), MAIN)
    write(os.path.join(top, "src", "report.c"), REPORT)
    lib_objs = " ".join(n + ".o" for n in names if n.startswith("lib/"))
    sh_objs = " ".join(n + ".o" for n in names if n.startswith("shlib/"))
    write(os.path.join(top, "Makefile"), f"""CC = gcc
CFLAGS = -O2 -Wall -Iinclude
LIB_OBJS = {lib_objs}
SH_OBJS = {sh_objs}

all: prog

lib/libunits.a: $(LIB_OBJS)
\tar rcs $@ $^

shlib/%.o: shlib/%.c
\t$(CC) $(CFLAGS) -fPIC -c $< -o $@

shlib/libshared.so: $(SH_OBJS)
\t$(CC) -shared -o $@ $^

src/%.o: src/%.c include/units.h
\t$(CC) $(CFLAGS) -c $< -o $@

prog: src/main.o src/report.o lib/libunits.a shlib/libshared.so
\t$(CC) -o $@ src/main.o src/report.o -Llib -lunits -Lshlib -lshared -Wl,-rpath,'$$ORIGIN/shlib'

check: prog
\t./prog

.PHONY: all check
""")


if __name__ == "__main__":
    main()
