# fish completion for tovel-ptyd and tovel-shellsess: commands, their
# options, and the ids of live sessions (from `tovel-ptyd list`).

function __tovel_ptyd_sessions
    set -l program (commandline -opc)[1]
    $program list 2>/dev/null | string replace -r ' .*' ''
end

# Installed once per name (fish loads a completion by the command's name), so
# the file completes the name it was loaded as.
set -l program (string replace -r '.*/' '' (status filename) | string replace -r '\.fish$' '')
begin
    set -l commands new list attach ensure inspect preflight kill connect serve doctor
    complete -c $program -f
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -a new -d 'Start a session in the background and print its id'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -a list -d 'List live sessions'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -a attach -d 'Attach to a live session'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -a ensure -d 'Attach, starting the session first if needed'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -a inspect -d 'Describe one live session'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -a preflight -d 'Check a directory and a tool'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -a kill -d 'End a session'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -a connect -d 'Start a session and attach to it'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -a serve -d 'Serve a directory over HTTP on 127.0.0.1'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -a doctor -d 'Check whether sessions survive logout'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -l version -d 'Print the version'
    complete -c $program -n "not __fish_seen_subcommand_from $commands" -l help -d 'Print the usage text'

    complete -c $program -n "__fish_seen_subcommand_from attach inspect kill ensure" -a '(__tovel_ptyd_sessions)' -d 'Live session'
    complete -c $program -n "__fish_seen_subcommand_from $commands" -l dir -r -a '(__fish_complete_directories)' -d 'Runtime directory'
    complete -c $program -n "__fish_seen_subcommand_from new ensure connect" -l cols -x -d Columns
    complete -c $program -n "__fish_seen_subcommand_from new ensure connect" -l rows -x -d Rows
    complete -c $program -n "__fish_seen_subcommand_from new ensure" -l cmd -x -a '(__fish_complete_command)' -d 'Program instead of the login shell'
    complete -c $program -n "__fish_seen_subcommand_from new ensure preflight" -l cwd -x -a '(__fish_complete_directories)' -d 'Working directory'
    for option in workspace-id replica-id lease-generation migration-id agent-kind adapter-id
        complete -c $program -n "__fish_seen_subcommand_from ensure" -l $option -x
    end
    complete -c $program -n "__fish_seen_subcommand_from list inspect preflight doctor" -l json -d 'JSON output'
    complete -c $program -n "__fish_seen_subcommand_from kill" -l force -d 'Wait until the socket is gone'
    complete -c $program -n "__fish_seen_subcommand_from preflight" -l session -x -a '(__tovel_ptyd_sessions)' -d 'Session id'
    complete -c $program -n "__fish_seen_subcommand_from preflight" -l executable -x -d Tool
    complete -c $program -n "__fish_seen_subcommand_from serve" -a '(__fish_complete_directories)' -d Root
    complete -c $program -n "__fish_seen_subcommand_from serve" -l port -x -d 'TCP port'
    complete -c $program -n "__fish_seen_subcommand_from serve" -l browser -d 'The caller supports the file browser'
    complete -c $program -n "__fish_seen_subcommand_from serve" -l browse-mode -d 'Redirect directory URLs into the browser'
    complete -c $program -n "__fish_seen_subcommand_from serve" -l idle-timeout -x -d 'Exit after N idle seconds'
end
