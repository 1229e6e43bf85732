"""Writes a C translation unit of about LINES lines for the compiler
workload: structs, tables, small functions with loops, switches and calls
between them, so that the compiler builds, optimises and frees many trees.
Deterministic. Usage: python3 cgen.py [LINES] > unit.c
(cproject.py builds a whole project from such units, each with its own
PREFIX on its names: unit(lines, prefix, seed).)"""
import sys


def unit(lines, prefix="", seed=99991):
    """The text of one unit; its entry point is long <prefix>run_all(struct rec*)."""
    out = []
    out.append("#include <stddef.h>\n#include <string.h>\n")
    out.append("struct rec { int id; long sum; double w; char tag[16]; struct rec* next; };\n")
    x = seed
    i = 0
    count = 3
    p = prefix
    # each function is about 19 lines and adds one line to run_all
    while count + 20 + 4 < lines:
        x = (x * 1103515245 + 12345) & 0x7FFFFFFF
        k = i
        prev = "%sf%d(n - 1, r)" % (p, k - 1) if k > 0 else "n"
        out.append(f"""
static const int {p}table{k}[8] = {{ {x % 97}, {x % 89}, {x % 83}, {x % 79}, {x % 73}, {x % 71}, {x % 67}, {x % 61} }};
long {p}f{k}(int n, struct rec* r) {{
  long acc = {x % 1000};
  for (int j = 0; j < n; ++j) {{
    switch ((j + {x % 13}) & 7) {{
      case 0: acc += {p}table{k}[j & 7] * (long)j; break;
      case 1: acc ^= (acc << 3) + {x % 31}; break;
      case 2: if (r && r->next) {{ acc += r->next->id; r = r->next; }} break;
      case 3: acc -= (long)(r ? r->w * {(x % 7) + 1}.5 : 1.0); break;
      case 4: acc += (long)strlen(r ? r->tag : "x{k}"); break;
      default: acc = acc * {x % 5 + 3} + j; break;
    }}
  }}
  if (r) {{ r->sum += acc; r->id ^= {x % 251}; }}
  return acc + (n > 1 ? {prev} : 0);
}}
""")
        count += out[-1].count("\n") + 1
        i += 1
    out.append("long %srun_all(struct rec* r) {\n  long t = 0;\n" % p)
    for k in range(i):
        out.append(f"  t += {p}f{k}({k % 9 + 2}, r);\n")
    out.append("  return t;\n}\n")
    return "".join(out)


if __name__ == "__main__":
    sys.stdout.write(unit(int(sys.argv[1]) if len(sys.argv) > 1 else 5000))
