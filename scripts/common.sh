# Sourced by the other scripts: where the project is, and the Debian packages that each job needs.

# What a script does stands at its head, and is asked for before anything is installed or built.
for word in "$@"; do
  case $word in --help | -h)
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
    exit
  esac
done

# take_only WORDS [ARGUMENT...]: ends the script where an argument is none of the words. What nobody knows would else be
# found out after a build, or never.
take_only() {
  local words=" $1 " word
  shift
  for word in "$@"; do
    [[ $words == *" $word "* ]] || { echo "${0##*/}: unknown argument: $word (--help tells what there is)" >&2; exit 2; }
  done
}

unset CDPATH
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$project"

build_packages=(g++ cmake ninja-build pkg-config openssl libssl-dev libboost-dev libspdlog-dev liburiparser-dev
  libgcrypt20-dev libidn2-dev libgmime-3.0-dev libcli11-dev nlohmann-json3-dev libtomlplusplus-dev
  libmilter-dev libcurl4-openssl-dev prometheus-cpp-dev)
test_packages=(libgtest-dev libgmock-dev gpgsm gpg-agent libnss3-tools gnutls-bin default-jdk-headless libbcpkix-java python3)
check_packages=(clang-format clang-tidy git doxygen abigail-tools)
reference_packages=(doxygen)
package_packages=(debhelper dpkg-dev git doxygen lintian abigail-tools)
bench_packages=(libbenchmark-dev gpgsm gpg-agent libnss3-tools gnuplot-nox python3)
peer_packages=(libbotan-2-dev libnss3-dev libqca-qt5-2-dev libqca-qt5-2-plugins)
fuzz_packages=(clang libclang-rt-14-dev)
mail_packages=(postfix swaks sasl2-bin libsasl2-modules)

# install PACKAGE...: installs what is missing, as root or through sudo.
install() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  local root=()
  [ "$(id -u)" -eq 0 ] || root=(sudo)
  if [ ${#root[@]} -gt 0 ] && ! command -v sudo >/dev/null; then
    echo "There is no sudo. Have root install ${missing[*]}" >&2
    return 1
  fi
  echo "Installing ${missing[*]}" >&2
  "${root[@]}" apt-get update -qq >&2
  "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
}

# install_mail: Postfix, swaks, and passwords for logins, for hosts of their own that tests and demonstration start. The system's Postfix is left
# unconfigured, so that it cannot start; where another mail server is installed, nothing is: it would have to go.
install_mail() {
  if command -v postconf >/dev/null || [ -x /usr/sbin/postconf ]; then
    install "${mail_packages[@]}"
    return
  fi
  if command -v sendmail >/dev/null || [ -x /usr/sbin/sendmail ]; then
    echo "There is another mail server on this machine, which Postfix would replace: not installing it" >&2
    return
  fi
  local root=()
  [ "$(id -u)" -eq 0 ] || root=(sudo)
  "${root[@]}" debconf-set-selections <<<"postfix postfix/main_mailer_type select No configuration"
  install "${mail_packages[@]}"
}

# A compiler cache is used where the machine has one; precompiled headers need the two words. Folders that are configured
# already keep what they were configured with.
if [ -z "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ] && command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS:-pch_defines,time_macros}
fi

# AddressSanitizer takes the thread-local block of a library loaded later for a page-aligned one when it happens to stand at offset
# 16 of a page; its search for leaks then follows a made-up address, and one process in some hundreds ends with "Tracer caught
# signal 11".
export ASAN_OPTIONS=${ASAN_OPTIONS:-intercept_tls_get_addr=0}

# configure PRESET [CMAKE-ARGUMENT...]: configures the preset's folder, silent unless that fails.
configure() {
  local said
  said=$(cmake --preset "$@" 2>&1) || { printf '%s\n' "$said" >&2; return 1; }
}

# build PRESET [CMAKE-BUILD-ARGUMENT...]: configures and builds the preset's folder.
build() {
  local preset=$1
  shift
  configure "$preset"
  cmake --build --preset "$preset" --parallel "$(nproc)" "$@"
}
