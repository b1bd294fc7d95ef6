# Completion for bash: tunnelctl, which knows itself what may follow, and the options of the
# commands beside it.

_tunnelctl() {
  # The line's words stand split at ':' and '=', as in names of types: join them again.
  local -a words=()
  local word line last glued='' i
  for ((i = 1; i <= COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]//[\'\"\\]/}
    if [[ $glued || $word =~ ^[:=]+$ ]] && ((${#words[@]})); then
      words[-1]+=$word
    else
      words+=("$word")
    fi
    [[ $word =~ ^[:=]+$ ]] && glued=yes || glued=''
  done
  word=${words[-1]-}
  last=${COMP_WORDS[COMP_CWORD]}
  [[ $glued ]] && last=''
  # Of a candidate only what stands in place of the last piece is wanted.
  local skip=${last//[\'\"\\]/}
  skip=$((${#word} - ${#skip}))

  COMPREPLY=()
  while IFS= read -r line; do
    if [[ $line == $'\t'* ]]; then
      mapfile -t COMPREPLY < <(compgen -f -- "${word:skip}")
      compopt -o filenames 2>/dev/null
      return 0
    fi
    line=${line%%$'\t'*}
    line=${line:skip}
    [[ $last == [\'\"]* ]] || printf -v line %q "$line"
    COMPREPLY+=("$line")
  done < <("${1/#\~/$HOME}" complete "${words[@]}" 2>/dev/null)
  return 0
}

_tunnelctl_options() {
  local last=${COMP_WORDS[COMP_CWORD]}
  if [[ $last == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W \
      "$("${1/#\~/$HOME}" --help 2>/dev/null | grep -oE -- '--[a-z][a-z-]*')" -- "$last")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$last")
    compopt -o filenames 2>/dev/null
  fi
  return 0
}

complete -F _tunnelctl tunnelctl
complete -F _tunnelctl_options hiveld fpmagent tunnelgen
