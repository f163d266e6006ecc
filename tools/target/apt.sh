# apt.sh: packages of another architecture and release, without touching this machine's own
# configuration. Sourced; needs $cache.
#
# apt keeps lists, cache and status where it is told to, so a second, private set of them under the
# cache knows mipsel although the machine does not. The servers are the ones this machine already
# uses for Debian, whichever format its sources are written in.

release=bookworm # the last that carries mipsel
apt=$cache/apt

# Prints the machine's Debian sources, one a line: URI|KEYRING|SUITE|COMPONENTS.
machine_sources() {
    for file in /etc/apt/sources.list.d/*.sources; do
        [ -e "$file" ] || continue
        awk '
            function flush(   u, s, i, j, nu, ns) {
                if (types ~ /(^| )deb( |$)/ && enabled !~ /no/) {
                    nu = split(uris, u, " "); ns = split(suites, s, " ")
                    for (i = 1; i <= nu; i++) for (j = 1; j <= ns; j++)
                        print u[i] "|" key "|" s[j] "|" components
                }
                types = uris = suites = components = key = enabled = ""
            }
            /^#/ { next }
            /^[[:space:]]*$/ { flush(); next }
            /^[A-Za-z-]+:/ {
                field = tolower($1); value = $0; sub(/^[^:]*:[[:space:]]*/, "", value)
                if (field == "types:") types = value
                else if (field == "uris:") uris = value
                else if (field == "suites:") suites = value
                else if (field == "components:") components = value
                else if (field == "enabled:") enabled = value
                else if (field == "signed-by:") key = value
            }
            END { flush() }' "$file"
    done
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [ -e "$file" ] || continue
        awk '
            $1 == "deb" {
                line = $0; key = ""
                if (match(line, /\[[^]]*\]/)) {
                    options = substr(line, RSTART + 1, RLENGTH - 2)
                    line = substr(line, 1, RSTART - 1) substr(line, RSTART + RLENGTH)
                    if (match(options, /signed-by=[^ ]*/)) key = substr(options, RSTART + 10, RLENGTH - 10)
                }
                n = split(line, w, " "); components = ""
                for (i = 4; i <= n; i++) components = components " " w[i]
                print w[2] "|" key "|" w[3] "|" components
            }' "$file"
    done
}

# Whatever release the machine runs: its server of the main archive also has the release we need,
# and likewise the one of security updates.
write_sources() {
    . /etc/os-release
    own=${VERSION_CODENAME:-$release}
    keyring=/usr/share/keyrings/debian-archive-keyring.gpg
    machine_sources > "$apt/machine"
    : > "$apt/sources.list"
    while IFS='|' read -r uri key suite components; do
        case " $components " in *" main "*) ;; *) continue ;; esac
        case $key in /*) ;; *) key=$keyring ;; esac
        case $suite in
        "$own" | stable | oldstable | testing)
            echo "deb [signed-by=$key] $uri $release main"
            echo "deb-src [signed-by=$key] $uri $release main"
            echo "deb-src [signed-by=$key] $uri bullseye main" # libcrypto 1.1, as on the gateway
            echo "deb [signed-by=$key] $uri $release-updates main" ;;
        "$own"-security | stable-security | oldstable-security)
            echo "deb [signed-by=$key] $uri $release-security main" ;;
        esac
    done < "$apt/machine" | sort -u > "$apt/sources.list"
    grep -q " $release main" "$apt/sources.list" ||
        fail "no source of the Debian archive was found below /etc/apt"
}

# private_apt TOOL ARGUMENT...: apt-get or apt-cache with the private state, for mipsel.
private_apt() {
    tool=$1
    shift
    "$tool" -q -o Dir::Etc::sourcelist="$apt/sources.list" -o Dir::Etc::sourceparts=/dev/null \
        -o Dir::State="$apt/state" -o Dir::State::lists="$apt/lists" \
        -o Dir::State::status="$apt/status" -o Dir::Cache="$apt/cache" \
        -o APT::Sandbox::User="$(id -un)" -o Acquire::Languages=none -o Acquire::Retries=3 \
        -o APT::Architecture="${arch:-mipsel}" -o APT::Architectures::= -o APT::Architectures::="${arch:-mipsel}" \
        -o APT::Get::List-Cleanup=false "$@"
}

# Lists of less than an hour ago are good enough.
refresh_lists() {
    [ -z "$(find "$apt/fresh" -mmin -60 2> /dev/null)" ] || return 0
    mkdir -p "$apt/state" "$apt/lists/partial" "$apt/cache/archives/partial"
    : > "$apt/status"
    write_sources
    # A half-synchronised index of one suite is no reason to give up: the rest is what counts.
    private_apt apt-get update || say "some package lists could not be fetched"
    arch=$(dpkg --print-architecture) private_apt apt-get update || true
    : > "$apt/fresh"
}

# fetch_with_dependencies DIR PACKAGE...: mipsel packages and all they depend on, unpacked in DIR.
fetch_with_dependencies() {
    into=$1
    shift
    rm -rf "$into" "$apt/cache/archives"
    mkdir -p "$into" "$apt/cache/archives/partial"
    private_apt apt-get install -y --download-only --no-install-recommends "$@"
    for file in "$apt"/cache/archives/*.deb; do
        dpkg -x "$file" "$into"
    done
    rm -rf "$apt/cache/archives"
}

# fetch DIR PACKAGE...: single packages, without what they depend on, unpacked in DIR.
fetch() {
    into=$1
    shift
    mkdir -p "$into" "$apt/download"
    for package; do
        rm -f "$apt"/download/*.deb
        (cd "$apt/download" && private_apt apt-get download "$package")
        dpkg -x "$apt"/download/*.deb "$into"
    done
    rm -rf "$apt/download"
}
