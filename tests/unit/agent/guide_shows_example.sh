#!/bin/bash
# guide_shows_example.sh: the guide shows the examples whole, and they must be the ones that are built and tested.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../../.."

# shown FILE: the block of the guide that follows the line which names the file.
shown() {
  awk -v name="services/$1" '
    /^```$/ && inside {exit}
    inside {print}
    index($0, name) {named = 1}
    /^```[a-z]+$/ && named {inside = 1}' docs/agent.md
}

for example in hello_service.cpp c_service.c python_service.py shell_service.sh; do
  diff <(shown $example) examples/services/$example
done
