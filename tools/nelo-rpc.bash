# Completion of nelo-rpc for bash.

_nelo_rpc()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command='' word='' place=0 i=0 candidates=''
    COMPREPLY=()

    # The command and how many words stand before this one; options and their values do not count.
    for ((i = 1; i < COMP_CWORD; ++i))
    do
        word=${COMP_WORDS[i]}
        case $word in
            --timeout | --count) ((++i)) ;;
            = | --*) ;;
            *)
                [ -n "$command" ] && ((++place)) || command=$word
                ;;
        esac
    done

    case $previous in
        --timeout | --count) return ;;
    esac

    case $current in
        -*)
            case $command in
                list) candidates="--json --ask --timeout" ;;
                call) candidates="--json --timeout" ;;
                watch | monitor | ping) candidates="--json --timeout --count" ;;
                *) candidates="--help --version" ;;
            esac
            ;;
        *)
            case $command:$place in
                :*) candidates="list call watch monitor ping" ;;
                call:0 | watch:0 | monitor:0 | ping:0)
                    # Asks nobody but the bus, so that a key on the keyboard does not reach a server.
                    candidates=$("${COMP_WORDS[0]}" list --json 2>/dev/null | sed -n 's/^{"name":"\([^"]*\)".*/\1/p')
                    ;;
                call:*)
                    [ "$place" -lt 3 ] ||
                        candidates="int: unsigned: bool:true bool:false float: double: string: cstring: bytes: enum:"
                    ;;
            esac
            ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$current")
    case ${COMPREPLY[0]-} in
        *:) compopt -o nospace 2>/dev/null ;;
    esac
}

complete -F _nelo_rpc nelo-rpc
