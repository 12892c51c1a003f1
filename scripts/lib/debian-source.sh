# shellcheck shell=bash
# Fetches a Debian source package with "apt-get source" through a private apt
# configuration built from the deb entries this machine already uses, so that
# neither /etc/apt nor the system's package lists are touched.
#
# Sourced by the build scripts; the caller defines log() and die().
#
#   debian_source APT_DIR DEST_DIR PACKAGE=VERSION
#     APT_DIR   private apt state (sources.list, lists, archives)
#     DEST_DIR  where "apt-get source" unpacks (and applies Debian's patches)

# Writes deb-src lines for every deb URI/suite/component configured on this
# machine (one-line and deb822 formats), keeping their signed-by option.
write_private_sources() {
  local out="$1" f
  : >"$out"
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    awk '
      /^[[:space:]]*deb[[:space:]]/ {
        sub(/^[[:space:]]*deb[[:space:]]+/, "deb-src ")
        print
      }' "$f" >>"$out"
  done
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    awk '
      function flush(   i, j, k, nu, ns, nc, u, s, c, opt) {
        if (types ~ /(^|[[:space:]])deb([[:space:]]|$)/ && enabled !~ /^[Nn][Oo]$/) {
          opt = (signed != "" && signed !~ /-----BEGIN/) ? " [signed-by=" signed "]" : ""
          nu = split(uris, u, /[[:space:]]+/)
          ns = split(suites, s, /[[:space:]]+/)
          nc = split(comps, c, /[[:space:]]+/)
          for (i = 1; i <= nu; i++) for (j = 1; j <= ns; j++) {
            if (u[i] == "" || s[j] == "") continue
            line = "deb-src" opt " " u[i] " " s[j]
            for (k = 1; k <= nc; k++) if (c[k] != "") line = line " " c[k]
            print line
          }
        }
        types = uris = suites = comps = signed = enabled = ""
      }
      function val(s) { sub(/^[^:]*:[[:space:]]*/, "", s); sub(/[[:space:]]+$/, "", s); return s }
      /^[[:space:]]*#/ { next }
      /^[[:space:]]*$/ { flush(); next }
      /^Types:/ { types = val($0) }
      /^URIs:/ { uris = val($0) }
      /^Suites:/ { suites = val($0) }
      /^Components:/ { comps = val($0) }
      /^Signed-By:/ { signed = val($0) }
      /^Enabled:/ { enabled = val($0) }
      END { flush() }' "$f" >>"$out"
  done
  [ -s "$out" ] || die "no deb entries found in /etc/apt/sources.list{,.d}"
}

debian_source() {
  local apt_dir="$1" dest="$2" spec="$3"
  mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$dest"
  write_private_sources "$apt_dir/sources.list"
  log "private apt sources ($apt_dir/sources.list):"
  sed 's/^/  /' "$apt_dir/sources.list" >&2
  local apt_opts=(
    -o Dir::Etc::SourceList="$apt_dir/sources.list"
    -o Dir::Etc::SourceParts=/dev/null
    -o Dir::State::Lists="$apt_dir/lists"
    -o Dir::Cache="$apt_dir/cache"
  )
  if [ "$(id -u)" -eq 0 ]; then
    # the private directories are not readable by the _apt sandbox user
    apt_opts+=(-o APT::Sandbox::User=root)
  fi
  apt-get "${apt_opts[@]}" update -q >&2
  (cd "$dest" && apt-get "${apt_opts[@]}" source -q "$spec") >&2
}
