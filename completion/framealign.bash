# Bash completion for framealign, framealign-batch and framealign-sim. The
# options come from the program's own --help (read once per shell), so they
# never drift from what the program takes; anything else completes as a
# file name.
_framealign_options() {
  local cache=_framealign_options_${1//[^A-Za-z0-9]/_}
  if [[ -z ${!cache-} ]]; then
    printf -v "$cache" '%s' "$("$1" --help 2>/dev/null | grep -o -- '--[a-z][a-z0-9-]*' | sort -u | tr '\n' ' ')"
  fi
  printf '%s' "${!cache}"
}

_framealign() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  if [[ $prev == --output ]]; then
    mapfile -t COMPREPLY < <(compgen -W "0 1 2 3 4 fast medium slow slowest" -- "$cur")
  elif [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_framealign_options "$1")" -- "$cur")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}
complete -o filenames -F _framealign framealign framealign-batch framealign-sim framealign-ref
