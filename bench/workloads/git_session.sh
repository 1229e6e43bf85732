#!/usr/bin/env bash
# A short git session over a tree of small files: init, add, commit, a second
# commit that edits the files of one directory, log with statistics, fsck. Identity,
# dates and configuration are fixed here, so the commit ids (printed at the
# end) are the same on every machine and every run.
#   git_session.sh prepare DIR [FILES]   write the files (not timed)
#   git_session.sh run DIR               the session itself (DIR/.git must not exist)
set -eu
mode=$1 dir=$2
case "$mode" in
  prepare)
    n=${3:-2000}
    mkdir -p "$dir"
    for ((i = 0; i < n; i++)); do
      d="$dir/d$((i % 40))"
      [ -d "$d" ] || mkdir -p "$d"
      printf 'file %d\nline two of %d\n%s\n' "$i" "$i" "$((i * 7919 % 100003))" > "$d/f$i.txt"
    done
    exit 0 ;;
  run) ;;
  *) echo "usage: $0 prepare|run DIR [FILES]" >&2; exit 2 ;;
esac

export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null GIT_PAGER=cat
export GIT_AUTHOR_NAME=bench GIT_AUTHOR_EMAIL=bench@localhost
export GIT_COMMITTER_NAME=bench GIT_COMMITTER_EMAIL=bench@localhost
export GIT_AUTHOR_DATE="2024-01-01T00:00:00+0000" GIT_COMMITTER_DATE="2024-01-01T00:00:00+0000"
g() { git -c init.defaultBranch=main -c gc.auto=0 -c core.fsync=none "$@"; }

cd "$dir"
g init -q
g add .
g commit -q -m "add the tree"
for f in d1/*.txt; do echo "edited" >> "$f"; done
g commit -q -a -m "edit one directory"
g log --stat > /dev/null
g fsck --no-progress
g diff --stat HEAD~1 HEAD | tail -n 1
g log --format=%H
