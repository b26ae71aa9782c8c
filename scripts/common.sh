# Shared by scripts/demo, scripts/test and scripts/bench: install what is
# missing, then configure and build. Source it; do not run it.
set -euo pipefail

VYRA_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
VYRA_JOBS=${VYRA_JOBS:-$(nproc)}

# Debian packages the library and the vyra tool need; scripts that build the
# tests or the benchmarks add theirs (VYRA_TEST_PACKAGES, libbenchmark-dev;
# Chromium: the browser test of the HTML report).
VYRA_PACKAGES=(build-essential cmake pkg-config libopencv-dev libavformat-dev libavcodec-dev
               libavutil-dev libswscale-dev nlohmann-json3-dev libcli11-dev)
VYRA_TEST_PACKAGES=(python3 libgtest-dev libgmock-dev zlib1g-dev ffmpeg chromium
                    python3-setuptools python3-wheel python3-pip python3-venv python3-distributed)
# What scripts/fuzz needs besides: clang with its sanitizer and libFuzzer
# runtimes.
VYRA_FUZZ_PACKAGES=(clang-14 libclang-rt-14-dev libfuzzer-14-dev)

vyra_install_missing() {
  local missing=() pkg
  for pkg in "${VYRA_PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$pkg")
    fi
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing missing packages: ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then
    echo "error: these packages are missing and installing them needs root: ${missing[*]}" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# vyra_build DIR [cmake options...]: configure (once) and build into DIR
# (relative to the repository unless absolute).
vyra_build() {
  local dir=$1
  shift
  [[ $dir = /* ]] || dir=$VYRA_ROOT/$dir
  cmake -S "$VYRA_ROOT" -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j "$VYRA_JOBS"
}
