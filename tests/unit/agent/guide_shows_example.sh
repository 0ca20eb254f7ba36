#!/bin/bash
# guide_shows_example.sh: the guide shows the example whole, and it must be the one that is built and tested.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../../.."
diff <(awk '/^```$/ && shown {exit} shown {print} /^```cpp$/ {shown = 1}' docs/agent.md) \
  examples/services/hello_service.cpp
