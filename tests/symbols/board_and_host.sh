#!/bin/sh
# board_and_host.sh DIR FILE...: stripped copies of the files in DIR/board,
# their debug files only in DIR/host as a build-id tree, DIR/sysroot as the
# board's paths, DIR/flat for a debuginfod server to scan, DIR/wrong with
# another build's debug file at the PIE program's path, and DIR/stripped with
# the board's stripped files at their paths.
set -eu
dir=$1; shift
mkdir -p "$dir/board" "$dir/host/.build-id" "$dir/flat"
for f in "$@"; do
  name=$(basename "$f")
  objcopy --strip-all "$f" "$dir/board/$name"
  objcopy --only-keep-debug "$f" "$dir/flat/$name.debug"
  id=$(readelf -n "$f" | sed -n 's/.*Build ID: *//p')
  mkdir -p "$dir/host/.build-id/${id%"${id#??}"}" "$dir/sysroot$dir/board"
  cp "$dir/flat/$name.debug" "$dir/host/.build-id/${id%"${id#??}"}/${id#??}.debug"
  cp "$dir/flat/$name.debug" "$dir/sysroot$dir/board/$name"
  mkdir -p "$dir/stripped$dir/board" && cp "$dir/board/$name" "$dir/stripped$dir/board/"
done
mkdir -p "$dir/wrong$dir/board"
cp "$dir/flat/vireo_sym_target_nopie.debug" "$dir/wrong$dir/board/vireo_sym_target"
