#!/usr/bin/env bash
# Every test tier: formatting, the debug build's tests, clang-tidy, the same tests under
# AddressSanitizer and UndefinedBehaviorSanitizer (all but the Debian package's and the
# booted machine's, which check the package rather than the code and run once, in the
# debug pass: the package built with dpkg-buildpackage, lintian, a second build compared
# byte for byte, install and removal), the
# threaded parts under ThreadSanitizer, and each fuzz target for a minute. Exits
# non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

echo "== format"
git ls-files -- 'src/*.cpp' 'src/*.h' 'tests/*.cpp' 'tests/*.h' 'bench/*.cpp' 'tools/*.cpp' 'tools/*.h' 'fuzz/*.cpp' \
  | xargs -r clang-format --dry-run -Werror

for preset in debug asan; do
  echo "== build and test: $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  if [[ "$preset" == debug ]]; then
    ctest --preset "$preset" -j2
    echo "== clang-tidy over src and tools"
    run-clang-tidy -p build/debug -j 2 -quiet "$PWD/src/" "$PWD/tools/" >build/debug/clang-tidy.log 2>&1 \
      || { grep -E 'error:' build/debug/clang-tidy.log >&2; exit 1; }
  else
    ctest --preset "$preset" -j2 -LE 'machine|package'
  fi
done

# The stop of all services runs on worker threads: its tests, those of the
# objects the workers touch, and the real backend's (whose load-state picture
# answers the workers too) run under ThreadSanitizer.
echo "== build and test: tsan (threaded parts)"
cmake --preset tsan >/dev/null
cmake --build --preset tsan
ctest --preset tsan -R 'ModelTest|SupervisionTest|systemd.service_manager'

echo "== fuzz targets, 60 s each"
bash scripts/run-fuzzers.sh 60

echo "== release build (benchmarks)"
cmake --preset release >/dev/null
cmake --build --preset release
