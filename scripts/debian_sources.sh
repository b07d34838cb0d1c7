# shellcheck shell=bash
# shellcheck disable=SC2034  # what is set here is for those that source it
# For scripts that make a Debian root. To be sourced.

# Of apt's sources in these files those of one suite, in either format.
only_suite() { # SUITE FILE...
  awk -v suite="$1" 'BEGIN { RS = ""; ORS = "\n\n" }
    /(^|\n)Suites:/ { sub("\nSuites:[^\n]*[ \t]" suite "([ \t][^\n]*)?", "\nSuites: " suite)
      if ($0 ~ "\nSuites: " suite "(\n|$)") print
      next }
    { lines = split($0, line, "\n")
      for (i = 1; i <= lines; ++i) if (line[i] ~ " " suite " ") print line[i] }' "${@:2}"
}

# Sets `release` to this machine's, and `sources` to the files of apt that name it.
find_sources() {
  # shellcheck disable=SC1091  # a file of the machine's
  release=$(. /etc/os-release && echo "$VERSION_CODENAME")
  mapfile -t sources < <(grep -l "$release" /etc/apt/sources.list /etc/apt/sources.list.d/* 2>/dev/null)
}
