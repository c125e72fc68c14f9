# Shell helpers for the scripts that drive real processes (sourced, not run).

# wait_for FILE TEXT SECONDS [COUNT]: until TEXT shows COUNT times (1) in
# FILE; gives up with FILE's tail and exit 1 after SECONDS.
wait_for() {
  local deadline=$((SECONDS + $3))
  until (($(grep -cF -- "$2" "$1" 2>/dev/null) >= ${4:-1})); do
    if ((SECONDS >= deadline)); then
      echo "$(basename "$0" .sh): gave up waiting for '$2' in $1" >&2
      tail -n 40 "$1" >&2
      exit 1
    fi
    sleep 0.1
  done
}

# value_of FILE KEY: what follows "KEY " on the first line that starts with it.
value_of() { grep -m1 "^$2 " "$1" | cut -d' ' -f2-; }
