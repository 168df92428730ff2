#!/usr/bin/env bash
# The report page in a real browser: headless Chromium loads the page the
# report writer made, the page's own check measures every data series of
# every plot once loaded, and the dumped DOM must say each plot was drawn.
#   browser_test.sh REPORT_WRITER     a program that writes a report into DIR
# Exit 77 (skipped) when Chromium is not installed. The browser's profile,
# cache and home are in a temporary directory, removed at the end.
set -euo pipefail
WRITER=$(readlink -f "$1")
BROWSER=$(command -v chromium || command -v chromium-browser || true)
if [ -z "$BROWSER" ]; then
    echo "SKIP: no chromium (apt-get install --no-install-recommends chromium)"
    exit 77
fi

TMP=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-browser-XXXXXX")
trap 'rm -rf "$TMP"' EXIT
fail() { echo "FAIL: $*"; [ -f "$TMP/browser.log" ] && tail -n 20 "$TMP/browser.log"; exit 1; }

"$WRITER" "$TMP/report" || fail "the report writer failed"
PAGE=$TMP/report/report.html
[ -s "$PAGE" ] || fail "no report.html"
# One self-contained page: nothing for the browser to fetch.
! grep -Eq '(src|href)=|url\(|@import' "$PAGE" || fail "the page refers to an outside resource"

mkdir -p "$TMP/home" "$TMP/profile" "$TMP/cache" "$TMP/tmp"
HOME=$TMP/home XDG_CONFIG_HOME=$TMP/home/.config XDG_CACHE_HOME=$TMP/cache TMPDIR=$TMP/tmp \
    timeout 120 "$BROWSER" --headless --no-sandbox --disable-gpu --disable-dev-shm-usage \
    --user-data-dir="$TMP/profile" --disk-cache-dir="$TMP/cache" --no-first-run \
    --no-default-browser-check --disable-extensions --disable-sync \
    --disable-background-networking --disable-component-update \
    --dump-dom "file://$PAGE" >"$TMP/dom.html" 2>"$TMP/browser.log" ||
    fail "the browser ended with status $?"

drawn=$(grep -o 'data-plots-drawn="[0-9]*/[0-9]*"' "$TMP/dom.html" | head -n 1 | cut -d'"' -f2)
[ -n "$drawn" ] || fail "the page's check did not run (no data-plots-drawn on the body)"
plots=$(grep -o '<svg class="plot"' "$PAGE" | wc -l)
echo "plots drawn: $drawn ($plots in the page)"
grep -o '<svg class="plot"[^>]*data-drawn="no"[^>]*>' "$TMP/dom.html" | sed 's/^/not drawn: /' || true
[ "$drawn" = "$plots/$plots" ] && [ "$plots" -gt 0 ] || fail "not every plot was drawn"
echo "PASS"
