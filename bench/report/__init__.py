"""What `make bench` measures and prints. scripts/bench-table is its command."""

import os

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
