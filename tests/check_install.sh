#!/usr/bin/env bash
# Installs the build into a temporary prefix and checks what a user of the package gets:
#  - the shared library, the public headers under their relative paths (no test worlds), the
#    trace reader, the CMake package and the pkg-config file;
#  - a small program builds against the installed tree through find_package(ovinmirel) and
#    through pkg-config, and runs.
#   check_install.sh <build dir> [sanitize ON|OFF] [c++ compiler]
set -euo pipefail
build="$1"
sanitize="${2:-OFF}"
cxx="${3:-c++}"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix="$tmp/prefix"

fail() {
    echo "FAIL: $*"
    exit 1
}

cmake --install "$build" --prefix "$prefix" >"$tmp/install.log" || {
    cat "$tmp/install.log"
    fail "cmake --install"
}

lib=$(find "$prefix" -name 'libovinmirel.so*' | head -n 1)
[ -n "$lib" ] || fail "libovinmirel.so is not installed"
[ -x "$prefix/bin/flinqcat" ] || fail "flinqcat is not installed"
for h in ovinmirel/testagent/OvinMirelTestAgentRoot.h ovinmirel/glue/OvinMirelGlueStatus.h \
    platform/vorn/Entity.h platform/mirel/PDStatus.h; do
    [ -f "$prefix/include/$h" ] || fail "header $h is not installed"
done
if find "$prefix/include" -name '*TestWorld.h' | grep -q .; then
    fail "a test world header was installed"
fi
[ -f "$(dirname "$lib")/cmake/ovinmirel/ovinmirelConfig.cmake" ] || fail "no CMake package"
pc="$(dirname "$lib")/pkgconfig/ovinmirel.pc"
[ -f "$pc" ] || fail "no pkg-config file"
if ldd "$prefix/bin/flinqcat" | grep -q 'not found'; then
    fail "flinqcat does not find its library"
fi

# The consumer: a glue status made through its factory, in the library.
mkdir -p "$tmp/consumer"
cat >"$tmp/consumer/main.cpp" <<'EOF'
#include <iostream>

#include "ovinmirel/glue/OvinMirelGlueStatus.h"

int main() {
    const Vorn::Ptr<OvinMirel::GlueStatus> status = OvinMirel::glueStatusFactory("glueStatus");
    status->initialize();
    status->glueSmStateIs(OvinMirel::idle_);
    std::cout << "glue " << status->glueSmState() << " "
              << (status->aclIdResponseColl() ? "ready" : "missing") << "\n";
    return 0;
}
EOF
cat >"$tmp/consumer/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.20)
project(consumer LANGUAGES CXX)
find_package(ovinmirel 0.1 REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE ovinmirel::ovinmirel)
EOF
flags=""
[ "$sanitize" = "ON" ] && flags="-fsanitize=address,undefined"
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)

expect="glue idle ready"
cmake -S "$tmp/consumer" -B "$tmp/consumer/build" "${generator[@]}" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
    >"$tmp/cmake.log" 2>&1 || {
    cat "$tmp/cmake.log"
    fail "configuring against the installed package"
}
cmake --build "$tmp/consumer/build" >"$tmp/build.log" 2>&1 || {
    cat "$tmp/build.log"
    fail "building against the installed package"
}
out=$("$tmp/consumer/build/consumer")
[ "$out" = "$expect" ] || fail "find_package program printed '$out'"

command -v pkg-config >/dev/null || fail "pkg-config is not installed"
pkgflags=$(PKG_CONFIG_PATH="$(dirname "$pc")" pkg-config --cflags --libs ovinmirel)
# shellcheck disable=SC2086
"$cxx" $flags "$tmp/consumer/main.cpp" $pkgflags -o "$tmp/consumer/pkgconfig-consumer" ||
    fail "building through pkg-config"
out=$(LD_LIBRARY_PATH="$(dirname "$lib")" "$tmp/consumer/pkgconfig-consumer")
[ "$out" = "$expect" ] || fail "pkg-config program printed '$out'"

echo "installed package works: find_package and pkg-config"
