#!/bin/sh
# usage: streams.sh SOURCE_DIRECTORY: written bytes are sent to their file by stream_flush, which also looks at the
# stream's error mark: fflush and fclose of uClibc return 0 where a write failed. Only lib/platform.h may call
# fflush; fclose only the guard of streams, and who has called stream_flush a few lines before.
set -eu
cd "$1"
find src companions \( -name '*.cpp' -o -name '*.h' \) ! -path src/lib/platform.h ! -path src/lib/guard.h \
    -exec awk '
        FNR == 1 { flushed = -99 }
        { sub(/\/\/.*/, "") }
        /stream_flush *\(/ { flushed = FNR }
        /(^|[^a-z_])fflush(_unlocked)? *\(/ || (/(^|[^a-z_])fclose *\(/ && FNR - flushed > 6) {
            print FILENAME ":" FNR ":" $0
            found = 1
        }
        END { exit found }' {} +
