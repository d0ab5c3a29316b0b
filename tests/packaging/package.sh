#!/usr/bin/env bash
# package.sh BUILD: looks at what is in the Debian package of a build tree, BUILD/package/corvalent_*.deb.
. "$(dirname "$0")/lib.sh"

BUILD=$1
SOURCE=$(cd "$(dirname "$0")/../.." && pwd)
WORK=$(mktemp -d /tmp/corvalent-package-XXXXXX)
trap 'rm -rf "$WORK"' EXIT

find_package "$BUILD/package"
TREE=$WORK/tree
dpkg-deb -R "$PACKAGE" "$TREE"

field() { dpkg-deb -f "$PACKAGE" "$1"; }

# "MODE OWNER" of a path, as the archive has it.
listed() { dpkg-deb -c "$PACKAGE" | awk -v path="./$1" '$6 == path || $6 == path "/" {print $1, $2}'; }

echo "== name, version, fields"
version=$(sed -n 's/^CPACK_PACKAGE_VERSION "\(.*\)"/\1/p; s/^set(CPACK_PACKAGE_VERSION "\(.*\)")/\1/p' "$BUILD/CPackConfig.cmake")
expect "file name" "corvalent_${version}_$(dpkg --print-architecture).deb" "$(basename "$PACKAGE")"
expect "version" "$version" "$(field Version)"
expect "version of the changelog" "$version" "$(dpkg-parsechangelog -l "$SOURCE/packaging/changelog" -S Version)"
expect "version of the program" "corvalentctl $version" "$("$BUILD/root/bin/corvalentctl" --version)"
for library in libc6 libssl3 libsqlite3-0 libpocofoundation80; do
    [[ $(field Depends) == *"$library ("* ]] || fail "does not depend on $library"
done
expect "conffiles" /etc/corvalent/agent.json "$(cat "$TREE/DEBIAN/conffiles")"
(cd "$TREE" && md5sum --quiet -c DEBIAN/md5sums)
expect "files without a checksum" "" \
    "$(cd "$TREE" && comm -3 <(find . -type f ! -path './DEBIAN/*' ! -path './etc/*' -printf '%P\n' | sort) \
        <(cut -c35- DEBIAN/md5sums | grep -v '^etc/' | sort))"

echo "== modes and owners"
for folder in etc var/lib var/log; do
    expect "mode of /$folder/corvalent" "drwx------ root/root" "$(listed "$folder/corvalent")"
done
expect "mode of agent.json" "-rw------- root/root" "$(listed etc/corvalent/agent.json)"
for program in corvalentd corvalentctl; do
    expect "mode of $program" "-rwxr-xr-x root/root" "$(listed "usr/lib/corvalent/bin/$program")"
done
expect "what others may write" "" "$(find "$TREE" ! -type l -perm /022)"
expect "owners" "root/root" "$(dpkg-deb -c "$PACKAGE" | awk '{print $2}' | sort -u)"

echo "== links"
while read -r link target; do
    expect "link /$link" "$target" "$(readlink "$TREE/$link")"
done <<'LINKS'
usr/lib/corvalent/conf /etc/corvalent
usr/lib/corvalent/data /var/lib/corvalent
usr/lib/corvalent/log /var/log/corvalent
usr/lib/corvalent/run /run/corvalent
usr/sbin/corvalentd ../lib/corvalent/bin/corvalentd
usr/bin/corvalentctl ../lib/corvalent/bin/corvalentctl
LINKS

echo "== binaries"
built=$(cd "$BUILD/root" && printf '%s\n' bin/corvalent* lib/*.so module/lib*_module.so | sort)
packaged=$(cd "$TREE/usr/lib/corvalent" && find bin lib module -type f | sort)
expect "programs, libraries and modules" "$built" "$packaged"
for binary in $packaged; do
    [[ $(file -b "$TREE/usr/lib/corvalent/$binary") == *", stripped" ]] || fail "$binary is not stripped"
done

echo "== documentation"
for page in "$SOURCE"/packaging/man/*.[1-9]; do
    packed=$TREE/usr/share/man/man${page##*.}/$(basename "$page").gz
    cmp "$page" <(zcat "$packed")
    # The name of the source and the time are left out (gzip -n): flags and time are zero.
    expect "flags and time of $packed" "00 00 00 00 00" "$(od -An -tx1 -j3 -N5 "$packed" | sed 's/^ //')"
    expect "warnings of $page" "" "$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)"
done
[[ -s $TREE/usr/share/doc/corvalent/copyright ]] || fail "no copyright file"

echo "== maintainer scripts"
for script in postinst prerm postrm; do
    sh -n "$TREE/DEBIAN/$script"
done

echo "== lintian"
lintian --fail-on error,warning "$PACKAGE" >"$WORK/lintian" 2>&1 || fail "lintian: $(cat "$WORK/lintian")"

echo "== the package is what it should be"
