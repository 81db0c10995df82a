# Sourced by the scripts beside it: the checkout's top folder, the job count, the --help text
# and the stage lines every script prints.

top=$(cd "$(dirname "$0")/.." && pwd)
jobs=${TARVO_JOBS:-$(nproc)}

# The script's opening comment, without its '#' marks.
usage() { awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"; }

# For a script that takes no arguments but --help.
takes_no_arguments() {
  for arg in "$@"; do
    case "$arg" in
      -h | --help) usage; exit 0 ;;
      *) echo "$(basename "$0"): unknown argument '$arg' (it takes none)" >&2; usage >&2; exit 2 ;;
    esac
  done
}

stage_start=0
stage() { stage_start=$(date +%s); echo; echo "== $1"; }
stage_done() { echo "== done in $(( $(date +%s) - stage_start )) s"; }
