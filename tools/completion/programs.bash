# Completion of nimbod, nimboctl, tarn-shadowd and tarnsim for bash. What there is to complete, their
# own help says.

# What options a help shows, and with $2, what it calls the value of that one.
_tarn_options() {
   sed -nE 's/^  (-.*)$/\1/p' <<<"$1" | sed -E 's/  .*//' | grep -oE -e '--[a-z][a-z-]*'
}
_tarn_value_of() {
   sed -nE "s/^  (-[a-z],)?$2 ([^ ]+)( .*)?\$/\2/p; s/^  $2,--[a-z-]+ ([^ ]+)( .*)?\$/\1/p" <<<"$1"
}

# What follows an option earlier in the line.
_tarn_given() {
   local i
   for ((i = 1; i < COMP_CWORD; ++i)); do
      if [[ ${COMP_WORDS[i]} == "$1" ]]; then
         ((++i))
         [[ ${COMP_WORDS[i]} == = ]] && ((++i))
         printf '%s' "${COMP_WORDS[i]}"
         return
      fi
   done
}

_tarn_files() {
   compopt -o filenames 2>/dev/null
   mapfile -t COMPREPLY < <(compgen "$1" -- "$2")
}

_tarn_words() {
   mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2")
}

_tarn_value() {
   local program=$1 placeholder=$2 word=$3 tarnreg
   case $placeholder in
   FILE | SOCKET) _tarn_files -f "$word" ;;
   DIR) _tarn_files -d "$word" ;;
   USER) mapfile -t COMPREPLY < <(compgen -u -- "$word") ;;
   GROUP) mapfile -t COMPREPLY < <(compgen -g -- "$word") ;;
   NAME)
      if [[ ${program##*/} == tarn-shadowd ]]; then
         tarnreg=${program%tarn-shadowd}tarnreg # which reads board files
         mapfile -t COMPREPLY < <(
            "$tarnreg" complete -- --board "$(_tarn_given --board)" --device "$word" 2>/dev/null |
               tail -n +2)
      fi
      ;;
   *[A-Z]*) ;;
   *\|*) _tarn_words "${placeholder//|/ }" "$word" ;;
   esac
}

# Behind "tarnsim control": a socket or none, a command, a device.
_tarnsim_control() {
   local program=$1 word=$2 position=2
   local -a socket=()
   if ((COMP_CWORD > 2)) && [[ ${COMP_WORDS[2]} == */* ]]; then
      socket=("${COMP_WORDS[2]}")
      position=3
   fi
   if [[ $word == */* || (-z ${TARNSIM_CONTROL:-} && ${#socket[@]} == 0) ]]; then
      _tarn_files -f "$word"
      return
   fi
   case $((COMP_CWORD - position)) in
   0) _tarn_words "$("$program" control "${socket[@]}" help 2>/dev/null | cut -d' ' -f1)" "$word" ;;
   1) _tarn_words "$("$program" control "${socket[@]}" devices 2>/dev/null | cut -d: -f1)" "$word" ;;
   esac
}

# Where the command begins that tarnsim runs; nothing before it does.
_tarnsim_command() {
   local i
   for ((i = 1; i <= COMP_CWORD; ++i)); do
      case ${COMP_WORDS[i]} in
      --) ((i < COMP_CWORD)) && echo $((i + 1)) && return ;;
      --board | --wire-log | --control)
         ((++i))
         [[ ${COMP_WORDS[i]:-} == = ]] && ((++i))
         ;;
      -*) ;;
      *) echo "$i" && return ;;
      esac
   done
}

_tarn_program() {
   local program=${1/#\~/$HOME} word=$2 before=$3 help placeholder begin
   COMPREPLY=()
   # To bash, "--board=x" is three words.
   [[ $word == = ]] && word=
   [[ $before == = ]] && before=${COMP_WORDS[COMP_CWORD - 2]}
   help=$("$program" --help 2>/dev/null)
   if [[ ${program##*/} == tarnsim ]]; then
      if ((COMP_CWORD > 1)) && [[ ${COMP_WORDS[1]} == control ]]; then
         _tarnsim_control "$program" "$word"
         return
      fi
      begin=$(_tarnsim_command)
      if [[ -n $begin ]]; then
         if ((COMP_CWORD > begin)) && declare -F _command_offset >/dev/null; then
            _command_offset "$begin"
         elif ((COMP_CWORD > begin)); then
            _tarn_files -f "$word"
         else
            mapfile -t COMPREPLY < <(compgen -c -- "$word")
            ((begin == 1)) && [[ control == "$word"* ]] && COMPREPLY+=(control)
         fi
         return
      fi
   fi
   if [[ $before == -* ]]; then
      placeholder=$(_tarn_value_of "$help" "$before")
   fi
   if [[ -n $placeholder ]]; then
      _tarn_value "$program" "$placeholder" "$word"
   elif [[ $word == -* ]]; then
      _tarn_words "$(_tarn_options "$help")" "$word"
   else
      _tarn_words "$(sed -nE '/^Subcommands:/,$ s/^  ([a-z]+)  .*/\1/p' <<<"$help")" "$word"
   fi
}
complete -F _tarn_program nimbod nimboctl tarn-shadowd tarnsim
