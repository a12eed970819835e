#!/bin/bash -eu
# What OSS-Fuzz runs in the image of the Dockerfile. Targets, with a dictionary, seeds, keys and the shared libraries that they
# need, are put into $OUT, where nothing of this image is left when they run.
project=$SRC/norvcrypto
build=${WORK:-$SRC}/norvcrypto-build

# Debian's C++ libraries are made for libstdc++; libFuzzer brings what it needs of its own.
CXXFLAGS=${CXXFLAGS//-stdlib=libc++/}
# The libraries in $OUT find each other by the path in the program, which the older of the two tags hands on.
cmake -S "$project" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON \
  -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="$CXXFLAGS" -DCMAKE_CXX_FLAGS_DEBUG= \
  -DCMAKE_BUILD_RPATH='$ORIGIN/lib' -DCMAKE_EXE_LINKER_FLAGS=-Wl,--disable-new-dtags \
  -DNORV_WARNINGS_AS_ERRORS=OFF -DNORV_FUZZERS=ON -DNORV_TESTS=OFF -DNORV_FUZZING_ENGINE="$LIB_FUZZING_ENGINE"
targets=$(basename -s .cpp -a "$project"/fuzz/fuzz_*.cpp)
cmake --build "$build" --target make_corpus make_dictionary $targets

mkdir -p "$OUT/lib" "$OUT/keys"
cp "$project"/tests/data/keys/*.pem "$OUT/keys/"
"$build/bin/make_dictionary" "$OUT"
seeds=$(mktemp -d)
"$build/bin/make_corpus" "$seeds"
for target in $targets; do
  cp "$build/bin/$target" "$OUT/"
  [ ! -e "$project/fuzz/corpus/$target.tar.xz" ] || tar -xmJf "$project/fuzz/corpus/$target.tar.xz" -C "$seeds/$target"
  rm -f "$OUT/${target}_seed_corpus.zip"
  (cd "$seeds/$target" && python3 -m zipfile -c "$OUT/${target}_seed_corpus.zip" .)
  # All but what every system has.
  ldd "$OUT/$target" | awk '$2 == "=>" && $3 ~ /^\// { print $3 }' |
    grep -Ev '/lib(c|m|dl|rt|pthread|resolv|gcc_s)\.so' | xargs -r cp -L -n -t "$OUT/lib"
done
rm -rf "$seeds"
