#!/usr/bin/env bash
# The arrow of includes: a file may include from its own layer and from those below it, and a
# public header pulls in no internal one.
set -euo pipefail
cd "$(dirname "$0")/.."

rooms='frame|thread|time|net|ipc|memory|log|config|object|file|client|utils'

# Layer of a path; the first pattern that fits decides. A public header counts as its class does.
layers='
4 ^time/(CTimer|Timer|CTimeText|ClockSetter)[A-Za-z]*[.]|/(CTimer|CTimerManager)[.]h
9 ^frame/Initialize|/Initialize[.]h
0 ^frame/base/|^Vantel/Export[.]h|/(TDelegate|TSignal|BuildIdentity)[.]h|^Vantel/Orbel/Buffer[.]h|^frame/BuildIdentity[.]|^utils/|^Vantel/Utils/
1 ^time/|/(CTime|CTimeRecord|SystemTime)[.]h
2 ^log/|^Vantel/(ILogger|LoggerLimit)[.]h|^Vantel/Log/
3 ^thread/|^frame/|/(C[A-Za-z]*Mutex|PrioMutex|SHMMutex|CSemaphore|CSpin|SpinLock|RWSpinLock|SpinSem)[.]h
3 /(CThread[A-Za-z]*|IThread[A-Za-z]*|RTAbsSleep|ProcessServices|ErrorState)[.]h
5 ^memory/|^Vantel/Memory/
7 ^ipc/|/(SharedMem[A-Za-z]*|NamedPipe|ProcessQueue|MPMCIDXQueue)[.]h
8 ^(config|file|object)/|^Vantel/(Config|INI|Object)/
9 ^client/|^Vantel/Client/
6 ^net/|^Vantel/Orbel/
'

# The log macros stand in the basics but need the logger; everybody may use them, so may time.
git ls-files --cached --others --exclude-standard -- include $(tr '|' ' ' <<<"$rooms") |
    grep -E '\.(h|cpp)$' | grep -v '^frame/base/Log.h$' |
    xargs grep -nHE '^#include "' |
    sed -E 's|^include/||; s|^([^:]+):([0-9]+):#include "([^"]+)".*|\1 \2 \3|' |
    awk -v layers="$layers" '
        BEGIN {
            count = split(layers, lines, "\n")
            for (i = 1; i <= count; ++i) {
                if (lines[i] != "") { rule[++rules] = lines[i] }
            }
        }
        function layer(path,    i, pair) {
            for (i = 1; i <= rules; ++i) {
                split(rule[i], pair, " ")
                if (path ~ pair[2]) { return pair[1] }
            }
            return -1
        }
        $3 == "frame/base/Log.h" || $3 == "Vantel/ILogger.h" { next }
        layer($3) > layer($1) {
            printf "%s:%d: layer %d includes %s of layer %d\n", $1, $2, layer($1), $3, layer($3)
            bad = 1
        }
        END { exit bad }'

if grep -rnE "#include \"($rooms)/" include; then
    echo "a public header includes an internal one"
    exit 1
fi
