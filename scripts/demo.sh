#!/usr/bin/env bash
# Installs what is missing, builds, and shows the product at work end to end.
# Until the server and client land, it builds everything and runs the checks of
# the platform layer that they stand on.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh
scripts/build.sh linux
export KESTRIUM_NAMESPACE="kestrium-demo-$$"
trap 'rm -f /dev/shm/kestrium."$(id -u)"."$KESTRIUM_NAMESPACE".* 2>/dev/null || true' EXIT
build/bin/platform_tests --gtest_brief=1
