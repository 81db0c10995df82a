#!/usr/bin/env bash
# Plants faults of our own choosing, one at a time, in a copy of the tree and runs the tests
# that should notice each; prints which faults the tests caught and which survived.
set -euo pipefail
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<'EOF'
usage: scripts/mutants.sh [--jobs N] [--only NAME[,NAME...]] [--list]

Plants each fault of the list below in a copy of the tree (build/mutants/tree, built in its
build/gcc with the shared ccache), rebuilds, runs the tests named beside the fault, and
restores the file. A fault is caught when a test fails; a fault that does not build is
reported as such. Ends with a table and exits 1 when a fault that should be caught survived.

Stages: copy the tree (tracked files as they are now), configure and build it once (as long as
a gcc build: 18 minutes on a busy 2-core machine from a cold cache, seconds when the copy is
already built), then per fault an incremental build and its tests: about 8 minutes for the
whole list on 2 cores, half a minute to two minutes a fault.

Options:
  --jobs N      parallel jobs for ninja and ctest (default: TARVO_JOBS or nproc)
  --only NAMES  plant only these faults (comma-separated)
  --list        print the list and stop
EOF
}

# name @ file @ perl substitution (applied to the whole file) @ ctest regex @ what it breaks
# A name ending in "~" marks a fault that the gcc tests cannot see; the line says why.
mutants=(
  "journal-off@src/DataAccess/TarvoInternalData.cpp@s/(    if \(ret == SQLITE_OK\) RefuseCodeInTheFile)/    if (ret == SQLITE_OK) sqlite3_exec(*db, \"PRAGMA journal_mode=OFF\", nullptr, nullptr, nullptr);\n\$1/@^PowerCut\\.@the store runs without its rollback journal"
  "sync-off@src/DataAccess/TarvoInternalData.cpp@s/PRAGMA synchronous=EXTRA/PRAGMA synchronous=OFF/@^PowerCut\\.@the store never syncs its file"
  "sync-full@src/DataAccess/TarvoInternalData.cpp@s/PRAGMA synchronous=EXTRA/PRAGMA synchronous=FULL/@^PowerCut\\.@SQLite's default sync: a removed journal can come back after a power cut"
  "agree-comparison@src/DataAccess/TarvoInternalDataAgreement.cpp@s/if \(item->isAgreed == agree\) \{/if (item->isAgreed != agree) {/@^(AgreementState|ClientAgreements|PowerCut)\\.@an answer is taken only when it changes nothing"
  "agree-row-dropped@src/DataAccess/TarvoInternalDataAgreement.cpp@s/(changes \+= id \+ \(agree[^\n]*\n(?:[^\n]*\n)*?)    m_UpdateDisclaimerTable\(item\);/\$1/@^(AgreementState|ClientAgreements|PowerCut)\\.@an answer is not written to its row"
  "mirror-key@src/DataAccess/TarvoInternalDataAgreement.cpp@s#\"db/tarvodatacontrol/disclaimeragrees\"#\"db/tarvodatacontrol/disclaimeragree\"#@^(AgreementState|ClientAgreements|PowerCut)\\.@the answers' mirror goes to a wrong vconf key"
  "sublink-entry@src/DataAccess/TarvoInternalDataAgreement.cpp@s/changes \+= link \+ \":true;\";/changes += link + (agree ? \":true;\" : \":false;\");/@^(AgreementState|ClientAgreements|ClientQueries)\\.@a linked answer is reported by its value, not as :true;"
  "store-lock~@src/DataAccess/TarvoInternalDataAgreement.cpp@s/(::SetAgreement\([^\n]*\n)    Sedge::TCMutexGuard guard\(m_Mutex\);\n/\$1/@^(Stress|AgreementState|ClientAgreements)\\.@SetAgreement takes no lock: a data race that only ThreadSanitizer (scripts/test.sh) reports"
  "utf8-line-check@host/frames.cpp@s/if \(!IsValidUtf8\(line\)\) \{/if (false \&\& !IsValidUtf8(line)) {/@^Host\\.@client frames are not checked for UTF-8 before JsonCpp reads them"
  "utf8-surrogates@host/utf8.cpp@s/        if \(lead == 0xED\) high = 0x9F;\n//@^Host\\.@UTF-8 surrogates pass as valid"
  "frame-size@host/socket_server.cpp@s/if \(pending.size\(\) > kMaxLineBytes\)/if (false)/@^Host\\.@a client line has no size limit"
  "vconf-dot-key@platform/src/vconf.cpp@s/if \(part.empty\(\) \|\| part\[0\] == '.'\) return std::nullopt;/if (part.empty()) return std::nullopt;/@^(Vconf|VconfStore|VconfNotification)@a vconf key may climb out of its tree with .."
  "tls-unverified@platform/src/curl_support.cpp@s/CURLOPT_SSL_VERIFYPEER, 1L/CURLOPT_SSL_VERIFYPEER, 0L/; s/CURLOPT_SSL_VERIFYHOST, 2L/CURLOPT_SSL_VERIFYHOST, 0L/@^(HttpClient|Upload|Cloud)@HTTPS servers are not verified"
  "upload-not-recorded@src/KelvaneService/TarvoDisclaimerAgreement.cpp@s/if \(!store->SetAgreementPutIfUnchanged\(generation\)\) \{/if (((void)generation, false)) {/@^(Upload|Sync|SyncFilled)\\.@a successful upload is not recorded, so the answers go again and again"
  "xml-root@src/Common/TarvoKelvaneParser.cpp@s/if \(xmlStrcmp\(root->name, reinterpret_cast<const xmlChar\*>\(\"rsp\"\)\) != 0\) \{/if (false) {/@^(ResponseParser|Upload)\\.@an answer of the agreement server with another root is read"
  "query-key@src/KelvaneService/TarvoKelvaneConnector.cpp@s/\"\&countrycode=\"/\"\&country=\"/@^(Connector|Sync)\\.@the update notice asks with a wrong query key"
)

only=""
while [ $# -gt 0 ]; do
  case "$1" in
    -h|--help) usage; exit 0 ;;
    --jobs) jobs=$2; shift 2 ;;
    --only) only=",$2,"; shift 2 ;;
    --list)
      for m in "${mutants[@]}"; do IFS='@' read -r name file _ regex what <<<"$m"; printf '%-20s %-48s %s\n' "$name" "$file" "$what"; done
      exit 0 ;;
    *) echo "mutants.sh: unknown option $1" >&2; usage >&2; exit 2 ;;
  esac
done

started=$(date +%s)
tree="$top/build/mutants/tree"
build="$tree/build/gcc"
echo "== copy of the tree in $tree"
mkdir -p "$tree"
(cd "$top" && git ls-files -z | tar --null -T - -cf -) | tar -xf - -C "$tree"

echo "== configure and build"
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-/work} CCACHE_NOHASHDIR=1
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVO_BENCH=OFF \
  -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ "${launcher[@]}" >/dev/null
ninja -C "$build" -j "$jobs" >"$tree/build.log" 2>&1 || { tail -n 30 "$tree/build.log"; exit 1; }
echo "== built in $(( $(date +%s) - started )) s"

results=()
survivors=0
for m in "${mutants[@]}"; do
  IFS='@' read -r name file edit regex what <<<"$m"
  if [ -n "$only" ] && [[ "$only" != *",${name%\~},"* ]]; then continue; fi
  t0=$(date +%s)
  cp "$top/$file" "$tree/$file"
  perl -0pi -e "$edit" "$tree/$file"
  if cmp -s "$top/$file" "$tree/$file"; then
    result="NOT PLANTED (the edit matched nothing)"
    survivors=$((survivors + 1))
  elif ! ninja -C "$build" -j "$jobs" >"$tree/$name.build.log" 2>&1; then
    result="does not build"
  elif ctest --test-dir "$build" -R "$regex" -j "$jobs" --timeout 240 >"$tree/$name.test.log" 2>&1; then
    ran=$(grep -Eo '[0-9]+ tests passed|tests passed, 0 tests failed out of [0-9]+' "$tree/$name.test.log" | tail -n 1)
    if grep -q 'No tests were found' "$tree/$name.test.log"; then
      result="SURVIVED (no test matched $regex)"
    else
      result="SURVIVED ($ran)"
    fi
    [[ "$name" == *"~" ]] || survivors=$((survivors + 1))
  else
    failed=$(grep -Eo '[0-9]+ tests failed out of [0-9]+' "$tree/$name.test.log" | tail -n 1)
    first=$(grep -E '^\s+[0-9]+ - ' "$tree/$name.test.log" | head -n 1 | awk '{print $3}')
    result="caught ($failed; first: $first)"
  fi
  cp "$top/$file" "$tree/$file"
  line=$(printf '%-20s %-9s %s' "$name" "$(( $(date +%s) - t0 )) s" "$result")
  echo "$line"
  results+=("$line")
done
# The copy is left as the tree is, so that the next run rebuilds little.
ninja -C "$build" -j "$jobs" >/dev/null 2>&1 || true

echo
echo "== $(( $(date +%s) - started )) s in all"
printf '%s\n' "${results[@]}"
if [ "$survivors" -ne 0 ]; then
  echo "$survivors fault(s) that the tests should catch survived or were not planted" >&2
  exit 1
fi
