#!/bin/sh
# install_test.sh BUILD_DIR SOURCE_DIR FLAGS: installs into an empty folder, builds the example there
# in both ways that a program finds the libraries, and runs it. There is no libxml2, and the program
# has headers of its own with the names of ours. A host is given only the component it needs.
set -eu
build=$1 source=$2
unset TMPDIR # its name may need quoting
dir=$(mktemp -d /tmp/install.XXXXXX)
trap 'rm -rf "$dir"' EXIT
cmake --install "$build" --component development --prefix "$dir/moved" >/dev/null
mv "$dir/moved" "$dir/usr" # nothing may depend on where it was installed
mkdir -p "$dir/user/common" "$dir/user/sys"
for header in common/misc.h sys/TExec.h; do
    echo '#error not ours' >"$dir/user/$header"
done
export CXXFLAGS="-Wall -Werror -I$dir/user $3"
cp "$source/examples/pipeline.cpp" "$source/examples/CMakeLists.txt" "$dir/user"
cd "$dir/user"

cmake -S . -B build "-DCMAKE_PREFIX_PATH=$dir/usr" \
    -DCMAKE_DISABLE_FIND_PACKAGE_LibXml2=ON --no-warn-unused-cli >/dev/null
cmake --build build >/dev/null
config=$(find "$dir/usr" -name pkgconfig)
# shellcheck disable=SC2046,SC2086 # lists of words
c++ -std=c++17 $CXXFLAGS pipeline.cpp -o pipeline $(PKG_CONFIG_LIBDIR=$config pkg-config --cflags --libs zendrel-sys)

for program in build/pipeline ./pipeline; do
    "$program" </dev/null | diff "$source/tests/golden/pipeline.txt" -
done

host=$dir/host
cmake --install "$build" --component runtime --prefix "$host" >/dev/null
cmake --install "$build" --prefix "$dir/all" >/dev/null
cmp "$source/share/app-meta.rng" "$host/share/zendrel/app-meta.rng"
if find "$host" -name '*.h' -o -name '*.a' -o -name '*.cmake' -o -name '*.pc' | grep .; then
    exit 1
fi
(cd "$dir/all" && find . -type f | sort) >"$dir/whole"
(cd "$dir/usr" && find . -type f && cd "$host" && find . -type f) | sort | diff "$dir/whole" -

cmp "$source/share/oxa.conf" "$host/share/zendrel/oxa.conf"

# One version in all places.
version=$(sed -n '1s/.*(\(.*\)).*/\1/p' "$source/debian/changelog")
[ "$("$host/sbin/zendrelctl" --version)" = "zendrelctl $version" ]
[ "$(PKG_CONFIG_LIBDIR=$config pkg-config --modversion zendrel-sys)" = "$version" ]
