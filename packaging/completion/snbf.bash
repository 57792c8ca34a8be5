# bash completion for snbf(1); the options of a verb are asked of the tool itself.

_snbf_nodes() {
  snbf list -o name --noheadings 2>/dev/null
}

_snbf_boot_nodes() {
  sed -n 's/^[[:blank:]]*\([A-Za-z0-9_-][^[:blank:]#]*\)[[:blank:]].*/\1/p' /etc/snbf/nodes 2>/dev/null
}

_snbf_snaps() {
  snbf snap list --noheadings 2>/dev/null | cut -d' ' -f1
}

_snbf() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} verb=${COMP_WORDS[1]}
  local verbs="attach start stop detach up down list status changes bitmap snap mount umount backup restore verify export doctor selftest version"
  COMPREPLY=()
  if [ "$COMP_CWORD" -eq 1 ]; then
    mapfile -t COMPREPLY < <(compgen -W "$verbs --help" -- "$cur")
    return
  fi
  case $prev in
    --bitmap) mapfile -t COMPREPLY < <(compgen -W "incr diff" -- "$cur"); return ;;
    --level) mapfile -t COMPREPLY < <(compgen -W "auto full incr diff" -- "$cur"); return ;;
    --as) mapfile -t COMPREPLY < <(compgen -W "text json nbdinfo qemu svg" -- "$cur"); return ;;
    --units) mapfile -t COMPREPLY < <(compgen -W "h b k m g t" -- "$cur"); return ;;
    --extent) mapfile -t COMPREPLY < <(compgen -W "4K 16K 64K 256K 1M" -- "$cur"); return ;;
    --chunk) mapfile -t COMPREPLY < <(compgen -W "4K 16K 64K 256K 1M" -- "$cur"); return ;;
    --snap) mapfile -t COMPREPLY < <(compgen -W "auto always none" -- "$cur"); return ;;
    --all) [ "$verb" != snap ] || { mapfile -t COMPREPLY < <(compgen -W "$(_snbf_nodes)" -- "$cur"); return; } ;;
    --nbd | --pid-file) mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return ;;
    --bitmaps | --cow) mapfile -t COMPREPLY < <(compgen -d -- "$cur"); return ;;
  esac
  if [[ $cur == -* ]]; then
    local options
    [ "$verb" != snap ] || verb="snap ${COMP_WORDS[2]}"
    # shellcheck disable=SC2086 -- two words for a verb of snap
    options=$(snbf $verb --help 2>/dev/null | grep -oE -e '--[a-z-]+' | sort -u)
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
    return
  fi
  case $verb in
    bitmap)
      if [ "$COMP_CWORD" -eq 2 ]; then
        mapfile -t COMPREPLY < <(compgen -W "get clear set merge save load" -- "$cur")
      elif [ "$COMP_CWORD" -eq 3 ]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_snbf_nodes)" -- "$cur")
      else
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      fi ;;
    snap)
      if [ "$COMP_CWORD" -eq 2 ]; then
        mapfile -t COMPREPLY < <(compgen -W "create list delete resume" -- "$cur")
      elif [ "${COMP_WORDS[2]}" = delete ]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_snbf_snaps)" -- "$cur")
      else
        mapfile -t COMPREPLY < <(compgen -W "$(_snbf_nodes)" -- "$cur")
      fi ;;
    mount | umount | export)
      if [ "$COMP_CWORD" -eq 2 ]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_snbf_snaps)" -- "$cur")
      else
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
      fi ;;
    up) mapfile -t COMPREPLY < <(compgen -W "$(_snbf_boot_nodes)" -- "$cur") ;;
    start | stop | detach | down | status | changes)
      mapfile -t COMPREPLY < <(compgen -W "$(_snbf_nodes)" -- "$cur") ;;
    backup)
      if [ "$COMP_CWORD" -eq 2 ]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_snbf_nodes)" -- "$cur")
      else
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
      fi ;;
    *) mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
  esac
}

complete -o filenames -F _snbf snbf
