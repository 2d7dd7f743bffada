#!/usr/bin/env bash
# One list spread over the machines named in `hosts` (one per line) with GNU
# parallel: each machine runs one shard of the list into the same result
# root on a shared file system; a rerun resumes every shard.
#   examples/parallel.sh captures.csv out/ ref.yuv 1920 1080
set -euo pipefail
list=$1 root=$2 reference=$3 width=$4 height=$5
shards=$(grep -cv '^\s*$' hosts)
seq 1 "$shards" | parallel --sshloginfile hosts --workdir . -j1 \
  framealign-batch --list "$list" --result-root "$root" --reference-file "$reference" \
  --width "$width" --height "$height" --shard {}/"$shards"
# Once every shard has ended: the whole summary.csv from their rows, no capture redone.
framealign-batch --list "$list" --result-root "$root" --reference-file "$reference" --width "$width" --height "$height"
