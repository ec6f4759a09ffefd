#!/usr/bin/env bash
# Breaks the daemon's code in 200 places, one at a time, and sees whether the tests notice: about an hour on two idle
# processors. Arguments are those of mutants.py, which tells the rest.
exec python3 "$(dirname "${BASH_SOURCE[0]}")/mutants.py" "$@"
