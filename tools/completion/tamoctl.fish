# fish completion for tamoctl: 'tamoctl complete' tells what may stand for the last word.

function __tamoctl_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    for line in ($words[1] complete $words $current 2>/dev/null)
        switch $line
            case \tfile
                __fish_complete_path $current
            case \tdirectory
                __fish_complete_directories $current
            case '*'
                echo $line
        end
    end
end

complete -c tamoctl -f -a '(__tamoctl_complete)'
