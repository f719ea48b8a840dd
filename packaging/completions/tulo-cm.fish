# Completion of tulo-cm in fish. The program knows what fits.
function __tulo_cm_complete
    set --local words (commandline --current-process --tokenize --cut-at-cursor)
    set --local token (commandline --current-token --cut-at-cursor)
    set --local word (string unescape -- $token; or string unescape -- $token\'; or string unescape -- $token\")
    set --local lines (command tulo-cm complete -- $words[2..] "$word" 2>/dev/null)
    switch "$lines[1]"
        case :files
            __fish_complete_path
        case :directories
            __fish_complete_directories
        case '*'
            printf '%s\n' $lines
    end
end
complete --command tulo-cm --no-files --arguments '(__tulo_cm_complete)'
