# Installs the Debian packages that the build needs, when they are missing.
# Sourced by the other scripts: luanaf_need_packages PKG...
luanaf_need_packages() {
  local missing=()
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  fi
}

LUANAF_BASE_PACKAGES=(cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev libfmt-dev clang libclang-rt-14-dev valgrind
  pybind11-dev python3-dev python3-numpy python3-pytest libassimp-dev
  pkg-config chromium python3-distributed)
