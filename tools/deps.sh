#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build and test the project (as root, or with sudo).
set -euo pipefail

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v g++ >/dev/null || need+=(g++)
command -v python3 >/dev/null || need+=(python3)
command -v curl >/dev/null || need+=(curl)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -f /usr/include/gmock/gmock.h ] || need+=(libgmock-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
if [ ${#need[@]} -gt 0 ]; then
    echo "installing: ${need[*]}"
    sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -q
    $sudo apt-get install -y -q "${need[@]}"
fi
