#!/usr/bin/env bash
# Prints every C++ file of the project.
cd "$(dirname "$0")/.."
git ls-files --cached --others --exclude-standard -- '*.h' '*.cpp'
