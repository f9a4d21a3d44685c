#!/usr/bin/env bash
# Installs the dependencies, then configures, builds and runs the whole test suite three
# times: a normal build, a ThreadSanitizer build and an AddressSanitizer+UBSan build.
# Usage: scripts/test.sh [normal|thread|address ...]   (default: all three)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
# When ccache is present, let checkouts in different folders share its cache.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
kinds=("$@")
[ ${#kinds[@]} -gt 0 ] || kinds=(normal thread address)

export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan.supp"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

# Line tables are all that test failures and sanitizer reports need, and -g1 compiles about a
# quarter faster than full debug information.
debug_flags=(-DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG"
             -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG")

for kind in "${kinds[@]}"; do
  # The benchmarks build (and run briefly) in the normal build only. The fuzz corpora replay in
  # the normal and the ASan+UBSan builds: their parsers run on one thread, so ThreadSanitizer
  # has nothing to find there.
  case "$kind" in
    normal) dir=build/normal; sanitize=""; bench=ON; replay=ON ;;
    thread) dir=build/tsan; sanitize=thread; bench=OFF; replay=OFF ;;
    address) dir=build/asan; sanitize=address; bench=OFF; replay=ON ;;
    *) echo "unknown build kind: $kind" >&2; exit 2 ;;
  esac
  echo "==== $kind build ($dir)"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${debug_flags[@]}" \
    -DZONARIS_SANITIZE="$sanitize" -DZONARIS_BUILD_BENCH="$bench" -DZONARIS_WERROR=ON \
    -DZONARIS_BUILD_FUZZ_REPLAY="$replay" >/dev/null
  cmake --build "$dir" -j "$jobs"
  # What a sanitizer cannot look into, or where it has nothing to find, runs in the normal
  # build only:
  # - the browser test drives chromium, which no sanitizer instruments;
  # - the exported-symbol checks read the libraries' symbol tables with a script, and no code
  #   of ours runs;
  # - under ThreadSanitizer, the readers of traces and beacon sightings, the virtual-time
  #   scheduler, the device model, zonaris-report, and the tools' refusals of bad command lines
  #   (given before any thread starts): they run on one thread, so there is no race to find
  #   (AddressSanitizer and UBSan still check them for overruns, leaks and UB).
  skip=()
  one_thread='ReportInBrowser|Report|TraceFiles|BrokenInputs|TracePosition|BeaconSightings'
  one_thread+='|Scheduler|SimDispatcher|DeviceModel|SimRefuses'
  case "$kind" in
    thread) skip=(-E "^($one_thread)[.]|^AgentProgram[.]Refuses|^capi[.].*Exports") ;;
    address) skip=(-E '^ReportInBrowser[.]|^capi[.].*Exports') ;;
  esac
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure "${skip[@]}"
  if [ "$kind" = normal ]; then
    # An application's view: install, then build the embedding example with find_package.
    echo "==== embedding example against an installed copy (build/prefix)"
    cmake --install "$dir" --prefix build/prefix >/dev/null
    cmake -S examples/embed -B build/embed -DCMAKE_PREFIX_PATH="$PWD/build/prefix" \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build build/embed -j "$jobs"
    # Offline run: a closed local port stands in for the service, the store goes to scratch.
    scratch=$(mktemp -d)
    XDG_DATA_HOME="$scratch" timeout 60 build/embed/embed http://127.0.0.1:9
    # The same from C99 through the C API and libzonaris.so.
    cmake -S examples/c -B build/c -DCMAKE_PREFIX_PATH="$PWD/build/prefix" \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build build/c -j "$jobs"
    XDG_DATA_HOME="$scratch" timeout 60 build/c/zonaris-c-example http://127.0.0.1:9 >/dev/null
    rm -rf "$scratch"
  fi
done
echo "==== all builds passed: ${kinds[*]}"
