#!/usr/bin/env bash
# The bash completion as a user meets it: tevu installed under a prefix of
# its own, and an interactive bash in a terminal (tmux) that loads
# bash-completion. Keys are typed and the screen is read back:
#   1. with <prefix>/share added to XDG_DATA_DIRS, as the README says,
#      bash-completion finds the completion by itself when TAB is first
#      pressed after "tevu";
#   2. without it, it does not (which is why the README says so), and
#      sourcing the installed file, the README's other way, works.
#   completion_test.sh BUILD_DIR
set -euo pipefail
build=$1
loader=/usr/share/bash-completion/bash_completion
if ! command -v tmux >/dev/null || [ ! -f "$loader" ]; then
  echo "skipped: needs tmux and bash-completion"
  exit 77
fi
scratch=$(mktemp -d /tmp/tevul-completion.XXXXXX)
shells=0 socket=$scratch/tmux.0
trap 'tmux -S "$socket" kill-server 2>/dev/null || true; rm -rf "$scratch"' EXIT
fail() {
  echo "FAIL: $*"
  echo "--- screen:"
  tmux -S "$socket" capture-pane -p -t shell 2>/dev/null || true
  exit 1
}

prefix=$scratch/opt/tevul
cmake --install "$build" --prefix "$prefix" >/dev/null
mkdir -p "$scratch/home/files"
: >"$scratch/home/files/my holiday.jpg"

# shell RCLINE: starts an interactive bash whose start-up file loads
# bash-completion, puts the prefix's tevu first in PATH and runs RCLINE.
shell() {
  cat >"$scratch/home/.bashrc" <<EOF
PS1='$ '
unset HISTFILE
PATH=$prefix/bin:/usr/bin:/bin
. $loader
$1
cd "$scratch/home/files"
EOF
  # A server of its own for each shell: a new session on a server that is
  # still going away fails.
  tmux -S "$socket" kill-server 2>/dev/null || true
  socket=$scratch/tmux.$((++shells))
  tmux -S "$socket" -f /dev/null new-session -d -s shell -x 150 -y 30 \
    "env -i HOME=$scratch/home TERM=xterm-256color bash -i"
  wait_for '^\$$' || fail "the shell did not start"
}

# wait_for REGEX: until the last line on the screen, without its trailing
# blanks, matches REGEX (5 s at most).
wait_for() {
  local line
  for _ in $(seq 50); do
    line=$(tmux -S "$socket" capture-pane -p -t shell | sed 's/ *$//' | grep -v '^$' | tail -n 1 || true)
    [[ $line =~ $1 ]] && return 0
    sleep 0.1
  done
  return 1
}

# completes TYPED EXPECTED: types TYPED, presses TAB and expects the line
# to read "$ EXPECTED" (trailing blanks aside); then clears the line.
completes() {
  tmux -S "$socket" send-keys -t shell -l "$1"
  tmux -S "$socket" send-keys -t shell Tab
  wait_for "^\\\$ $(printf '%s' "$2" | sed 's/ *$//; s/[][\\.*^$]/\\&/g')\$" ||
    fail "'$1' + TAB should read '$2'"
  tmux -S "$socket" send-keys -t shell C-u
  wait_for '^\$$' || fail "the line was not cleared"
}

# registered WHAT: `complete -p tevu` prints WHAT (after a TAB has let
# bash-completion look for it).
registered() {
  tmux -S "$socket" send-keys -t shell -l "complete -p tevu 2>&1 | tail -c 40 | tr ' ' _"
  tmux -S "$socket" send-keys -t shell Enter
  local seen=0
  for _ in $(seq 50); do
    tmux -S "$socket" capture-pane -p -t shell | grep -q -- "$1" && seen=1 && break
    sleep 0.1
  done
  ((seen)) || fail "complete -p tevu: expected '$1'"
  tmux -S "$socket" send-keys -t shell C-l
  wait_for '^\$$' || fail "the screen was not cleared"
}

# 1. As the README says for a prefix of its own.
shell "export XDG_DATA_DIRS=$prefix/share:\${XDG_DATA_DIRS:-/usr/local/share:/usr/share}"
completes "tevu fi" "tevu find "
completes "tevu find --un" "tevu find --under "
completes "tevu rename --va" "tevu rename --value "
completes "tevu view ev" "tevu view events "
completes "tevu list my" 'tevu list my\ holiday.jpg '
registered "_tevu_tevu$"

# 2. Without it bash-completion does not look in the prefix: it falls back
# to its minimal completion (file names). Sourcing the installed file is
# the other way.
shell ""
# The TAB only makes bash-completion look; what it registered tells.
tmux -S "$socket" send-keys -t shell -l "tevu fi"
tmux -S "$socket" send-keys -t shell Tab C-u
registered "_minimal_tevu$"
shell ". $prefix/share/bash-completion/completions/tevu"
completes "tevu fi" "tevu find "
completes "tevu list my" 'tevu list my\ holiday.jpg '
echo "completion loaded in an interactive bash for a prefix install"
