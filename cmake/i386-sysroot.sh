#!/bin/bash
# i386-sysroot.sh TARGET [extra i386 packages...]
# Makes TARGET an i386 Debian sysroot: C/C++ runtime and headers, GCC's 32-bit
# files and the -dev packages below with all they depend on. Needs apt, dpkg-deb
# and the ordinary amd64 g++; no root, no "dpkg --add-architecture", no
# g++-multilib. apt runs on a private state (i386 only, the release's main suite
# only, from the mirror this machine's own sources name); the system's apt lists
# and dpkg database are not touched. Idempotent: a finished TARGET of the same
# script and packages returns at once, without network. Exit 0: a 32-bit C++
# program was built with it and ran. Optional: I386_MIRROR, I386_SUITE.
set -euo pipefail
export LC_ALL=C DEBIAN_FRONTEND=noninteractive
umask 022
PACKAGES=(libc6-dev linux-libc-dev libgcc-12-dev libstdc++-12-dev libasan8 libubsan1 libatomic1
  libace-dev libyajl-dev libcurl4-openssl-dev libssl-dev libsqlite3-dev libzstd-dev liblzo2-dev
  libexpat1-dev libboost-dev zlib1g-dev libxxhash-dev libgtest-dev libgmock-dev libcli11-dev)
[ $# -ge 1 ] || { echo "usage: $0 TARGET [extra i386 packages...]" >&2; exit 2; }
target=$(realpath -m -- "$1"); shift; PACKAGES+=("$@")
say() { printf 'sysroot: %s\n' "$*"; }
die() { printf 'sysroot: error: %s\n' "$*" >&2; exit 1; }
key=$({ cat -- "${BASH_SOURCE[0]}"; printf '%s\n' "$target" "${PACKAGES[@]}"; } | sha256sum | cut -d' ' -f1)
stamp=$target/.i386-sysroot
fresh() { [ -f "$stamp" ] && [ "$(head -n1 "$stamp")" = "$key" ] && say "up to date: $target"; }
fresh && exit 0
[ ! -e "$target" ] || [ -f "$stamp" ] || [ -z "$(ls -A "$target")" ] || die "$target was not made by this script"
for t in apt-get dpkg-deb g++ flock; do command -v $t >/dev/null || die "$t is missing"; done
mkdir -p "$(dirname "$target")"
exec 9>"$target.lock"; flock 9             # a second caller waits, then finds it done
fresh && exit 0
start=$SECONDS work=$target.new; root=$work/root apt=$work/apt
rm -rf "$work"; trap 'rm -rf "$work"' EXIT
mkdir -p "$root" "$apt"/{parts,state/lists/partial,cache/archives/partial}
: >"$apt/state/status"
# The machine's network settings (proxy, date checks) are kept; hooks and pins are not.
apt-config dump | grep '^Acquire::' | grep -v '^Acquire::IndexTargets' >"$apt/parts/10net" || true
cat >"$apt/apt.conf" <<EOF
Dir::Etc { parts "$apt/parts"; main "/dev/null"; sourcelist "$apt/sources.list"; sourceparts "/dev/null";
  preferences "/dev/null"; preferencesparts "/dev/null"; };
Dir::State "$apt/state"; Dir::State::status "$apt/state/status"; Dir::Cache "$apt/cache"; Dir::Log "$apt";
APT { Architecture "i386"; Architectures { "i386"; }; Install-Recommends "false"; Install-Suggests "false";
  Sandbox::User "root"; Get::Assume-Yes "true"; };
Acquire::Languages "none"; Acquire::Retries "3"; pkgCacheGen::Essential "none"; Debug::NoLocking "true"; quiet "2";
EOF
papt() { APT_CONFIG=$apt/apt.conf apt-get "$@" </dev/null 2>>"$work/log"; }
# shellcheck source=/dev/null
suite=${I386_SUITE:-$(. /etc/os-release; echo "$VERSION_CODENAME")}
mirrors=${I386_MIRROR:-$(apt-get update --print-uris 2>/dev/null |
  sed -n "s#^'\(.*\)/dists/$suite/\(In\)\{0,1\}Release'.*#\1#p" | sort -u)}
[ -n "$mirrors" ] || die "no mirror for suite $suite in this machine's apt sources"
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
signed=; [ ! -f $keyring ] || signed=" signed-by=$keyring"

read_index() {
  local try m
  for try in 1 2 3 4 5; do
    for m in $mirrors; do
      echo "deb [arch=i386$signed] $m $suite main" >"$apt/sources.list"
      papt update --error-on=any >>"$work/log" && papt install --print-uris libc6-dev >/dev/null && return
      rm -rf "$apt/state/lists"; mkdir -p "$apt/state/lists/partial"
    done
    say "index not readable (try $try of 5)"; sleep $((try * 5))
  done
  tail -n 20 "$work/log" >&2
  die "the i386 index of $suite/main cannot be read"
}

say "reading the i386 package index of $suite/main"
for try in 1 2 3 4 5 x; do
  [ $try != x ] || { tail -n 20 "$work/log" >&2; die "the packages cannot be downloaded"; }
  # A mirror's index may be out of step with its files for a moment: it is read again before every try.
  read_index
  papt install --print-uris "${PACKAGES[@]}" | awk '$1 ~ /^\047/ {print $2, $3}' >"$work/closure" ||
    { tail -n 20 "$work/log" >&2; die "the packages cannot be resolved"; }
  count=$(wc -l <"$work/closure"); mb=$(awk '{s += $2} END {printf "%.1f", s / 1e6}' "$work/closure")
  say "downloading $count packages ($mb MB)"
  papt install --download-only "${PACKAGES[@]}" >>"$work/log" && break
  say "downloading failed (try $try of 5)"; sleep $((try * 5))
done

say "unpacking"
while read -r f _; do dpkg-deb -x "$apt/cache/archives/$f" "$root"; done <"$work/closure"
(cd "$root" && rm -rf usr/share/{doc,man,info,locale,lintian,bug,gdb} var)
# Absolute links would point at the machine's own files.
find "$root" -type l -lname '/*' -print0 | while IFS= read -r -d '' l; do
  ln -sfn "$(realpath -m --relative-to="$(dirname "$l")" "$root$(readlink "$l")")" "$l"
done
# "gcc -m32 -B<dir>" searches <dir>/32, then the machine's /usr/lib32 (filled by
# g++-multilib), then the sysroot: so <dir>/32 names every crt file and library.
B=$(find "$root/usr/lib/gcc/i686-linux-gnu" -mindepth 1 -maxdepth 1 -type d)
[ -f "$B/crtbegin.o" ] || die "no single GCC folder in the sysroot"
mkdir "$B/32"
find "$root"/{,usr/}lib/i386-linux-gnu "$B" -maxdepth 1 \( -name '*.[oa]' -o -name '*.so' -o -name '*.so.*' \) \
  -exec ln -sfr -t "$B/32" {} +
v=${B##*/}
[ "$v" = "$(g++ -dumpversion | cut -d. -f1)" ] || die "this machine's g++ is not version $v"

say "trying it"
cat >"$work/t.cpp" <<'EOF'
#include <gnu/libc-version.h>
#include <iostream>
#include <thread>
int main() {
  static_assert(sizeof(void*) == 4 && sizeof(off_t) == 8);
  int n = 0;
  std::thread([&] { try { throw 42; } catch (int i) { n = i; } }).join();
  std::cout << "glibc " << gnu_get_libc_version();
  return n != 42;
}
EOF
g++ -m32 -std=c++17 --sysroot="$root" -B"$B" -nostdinc++ -D_FILE_OFFSET_BITS=64 -isystem "$root/usr/include/c++/$v" \
  -isystem "$root/usr/include/i386-linux-gnu/c++/$v" "$work/t.cpp" -o "$work/t" -Wl,--dynamic-linker="$root/lib/ld-linux.so.2" \
  -Wl,--disable-new-dtags,-rpath,"$root/lib/i386-linux-gnu:$root/usr/lib/i386-linux-gnu" || die "a 32-bit program does not build"
said=$("$work/t") || die "a 32-bit program does not run (has the kernel IA32 emulation?)"
{ echo "$key"; cut -d' ' -f1 "$work/closure"; } >"$root/.i386-sysroot"
rm -rf "$target.old"; [ ! -e "$target" ] || mv -T "$target" "$target.old"
mv -T "$root" "$target"; rm -rf "$target.old"
say "done in $((SECONDS - start)) s: $target ($said, GCC $v, $count packages)"
