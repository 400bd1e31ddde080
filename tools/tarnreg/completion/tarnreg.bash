# Completion of tarnreg for bash. What there is to complete, the program itself says.
_tarnreg() {
   local kind
   { IFS= read -r kind; mapfile -t COMPREPLY; } < <(
      "${1/#\~/$HOME}" complete --line "${COMP_LINE:0:COMP_POINT}" "$COMP_WORDBREAKS" 2>/dev/null)
   case $kind in
   files)
      local word=$2
      [[ $word == = ]] && word=
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      ;;
   open)
      compopt -o nospace 2>/dev/null
      ;;
   esac
}
complete -F _tarnreg tarnreg
