#!/usr/bin/env bash
# Renders a run report page (tools/report/run_report.py) to a PNG in a headless browser, with the
# network cut off: a page that needs anything from outside, or whose scripts or images fail, is
# reported. Not part of the tests (it needs Debian's chromium: apt-get install chromium).
#
#   scripts/render_run_report.sh PAGE.html OUT.png [WIDTH [HEIGHT]]
set -euo pipefail
PAGE=$(realpath "$1")
OUT=$(realpath -m "$2")
WIDTH=${3:-1300}
HEIGHT=${4:-7000}
BROWSER=$(command -v chromium || command -v chromium-browser || true)
[ -n "$BROWSER" ] || { echo "render_run_report: chromium is not installed" >&2; exit 2; }
PROFILE=$(mktemp -d /tmp/kvx_render.XXXXXX)
trap 'rm -rf "$PROFILE"' EXIT
rm -f "$OUT"

# --proxy-server to nowhere: nothing is fetched from outside; the net log lists what the page asked for.
"$BROWSER" --headless --no-sandbox --disable-gpu --hide-scrollbars --user-data-dir="$PROFILE" \
    --no-first-run --disable-extensions --disable-background-networking --disable-sync \
    --proxy-server="http://127.0.0.1:9" --proxy-bypass-list="<-loopback>" \
    --log-net-log="$PROFILE/net.json" --enable-logging=stderr --v=0 --window-size="$WIDTH,$HEIGHT" --screenshot="$OUT" "file://$PAGE" \
    >"$PROFILE/stdout" 2>"$PROFILE/stderr" || { cat "$PROFILE/stderr" >&2; exit 1; }

status=0
if [ ! -s "$OUT" ]; then
    echo "render_run_report: no screenshot written" >&2
    status=1
fi
# Console messages of the page and failed loads; the browser's own start-up noise is not the page's.
if grep -E "CONSOLE|net::ERR_|Failed to load|Not allowed to load" "$PROFILE/stderr" >&2; then
    echo "render_run_report: the page had errors (above)" >&2
    status=1
fi
# Requests made for the page (its isolation key is the file's), other than the page itself and data: URLs.
if ! /usr/bin/python3 - "$PROFILE/net.json" "file://$PAGE" <<'PY' >&2; then
import json, sys
text = open(sys.argv[1]).read()
try:
    events = json.loads(text)["events"]
except ValueError:  # a log the browser did not close
    events = json.loads(text.rstrip().rstrip(",") + "]}")["events"]
outside = sorted({e["params"]["url"] for e in events
                  if "url" in e.get("params", {}) and "file://" in str(e["params"].get("network_isolation_key", ""))
                  and not e["params"]["url"].startswith(("data:", sys.argv[2]))})
for url in outside:
    print("render_run_report: the page loads", url)
sys.exit(1 if outside else 0)
PY
    status=1
fi
[ $status = 0 ] && echo "render_run_report: $OUT ($(stat -c %s "$OUT") bytes)"
exit $status
