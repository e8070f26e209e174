#!/usr/bin/env bash
# Mutation testing of src/ against the whole test suite; not part of CI (a few hundred mutants
# take about half an hour on two cores). Usage:
#   scripts/mutate.sh --sample 300 --seed 1 --out results.tsv   a reproducible random sample
#   scripts/mutate.sh --file src/db_queue.cpp                   every mutant of one file
#   scripts/mutate.sh --replay results.tsv --out again.tsv      the same mutants on this tree
#   scripts/mutate.sh --report results.tsv                      score and survivors of a run
#   scripts/mutate.sh --list                                    mutants per file
set -euo pipefail
exec python3 "$(dirname "${BASH_SOURCE[0]}")/mutate.py" "$@"
