# Sourced by the set-up scripts: installs the Debian packages named in the
# arguments that are not installed yet (as root, or through sudo).
ensure_packages() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" ||
      missing+=("$p")
  done
  ((${#missing[@]})) || return 0
  local sudo=()
  [ "$(id -u)" -eq 0 ] || sudo=(sudo)
  "${sudo[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq \
    --no-install-recommends "${missing[@]}"
}
