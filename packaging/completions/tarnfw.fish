# Completion for fish. What can come next is the tool's to say ("tarnfw complete").

function __tarnfw_candidates
    set -l words (commandline -opc)
    # The word being typed, without the quotes and backslashes that it has so far.
    set -l raw "$(commandline -ct)"
    set -l current "$(string unescape -- "$raw"; or string replace -r '^["\']' '' -- "$raw")"
    for candidate in (tarnfw complete -- $words[2..-1] $current 2>/dev/null)
        if test "$candidate" = '<file>'
            __fish_complete_path $current
        else
            printf '%s\n' $candidate
        end
    end
end

complete -c tarnfw -f -a '(__tarnfw_candidates)'
