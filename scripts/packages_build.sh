# shellcheck shell=sh
# For scripts that build what ships. To be sourced.

# Configures the build that an architecture's packages are made of, below build/: as Debian builds its
# own packages, hardened and optimised, and the same bytes from the same sources. The tests of 32 bit
# run on it, too.
#
#   configure_packages_build PRESET [CMAKE OPTION ...]    sets architecture, multiarch and build
configure_packages_build() {
  case "$1" in
    release) architecture=$(dpkg --print-architecture) ;;
    *) architecture=$1 ;;
  esac
  multiarch=$(dpkg-architecture -f -a "$architecture" -q DEB_HOST_MULTIARCH 2>/dev/null)
  build=build/package-$architecture
  CXXFLAGS="$(packages_flags CPPFLAGS) $(packages_flags CXXFLAGS)"
  LDFLAGS=$(packages_flags LDFLAGS)
  export CXXFLAGS LDFLAGS
  cmake --preset "$@" -B "$build" \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$multiarch" -DTAMSEL_BUILD_BENCH=OFF \
    -DCPACK_DEBIAN_PACKAGE_ARCHITECTURE="$architecture" >/dev/null
}

packages_flags() { # NAME
  DEB_BUILD_MAINT_OPTIONS=hardening=+all DEB_CXXFLAGS_MAINT_STRIP="-g" \
    dpkg-architecture -f -a "$architecture" -c dpkg-buildflags --get "$1" 2>/dev/null
}
