# Sourced by the tools: installs the Debian packages that are missing.
ensure_packages() {
  local missing=()
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  # A mirror in mid-sync can fail one index; the install below says whether
  # what is needed was found anyway.
  $sudo apt-get update -qq || echo "apt-get update reported errors; installing anyway" >&2
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
}
