# Completion of tarnfw(1) verbs, options and names for fish.

set -l verbs setup enable disable reload clear recover status compile profile update adapter service \
    country modules

complete -c tarnfw -f
complete -c tarnfw -l json -d 'Print one JSON document'
complete -c tarnfw -s q -l quiet -d 'Errors only on standard error'
complete -c tarnfw -s v -l verbose -d 'Debug messages too'
complete -c tarnfw -s h -l help -d 'Print help'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -l version -d 'Print the version'

complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a setup -d 'Make base chains and a first profile'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a enable -d 'Switch the firewall on'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a disable -d 'Switch the firewall off'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a reload -d 'Load the active profile anew'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a clear -d 'Empty the firewall chains'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a recover -d 'Undo what a killed reload left behind'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a status -d 'Show whether the firewall is on'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a compile -d 'Print the commands that load a profile'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a profile -d 'Work on stored profiles'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a update -d 'Take vanished services out of the profiles'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a adapter -d 'List adapters'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a service -d 'List services'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a country -d 'List countries and their ranges'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a modules -d 'Load and unload kernel modules'

complete -c tarnfw -n '__fish_seen_subcommand_from setup enable disable reload clear recover update create delete rename use load unload' \
    -s n -l dry-run -d 'Print what would be done'
complete -c tarnfw -n '__fish_seen_subcommand_from status' -l verify -d 'Compare the live rules with the profile'
complete -c tarnfw -n '__fish_seen_subcommand_from compile' -l no-state -d 'Without connection-state lines'
complete -c tarnfw -n '__fish_seen_subcommand_from compile' -x -l exempt -d 'Address left out of the connection-state accept'
complete -c tarnfw -n '__fish_seen_subcommand_from use' -l no-reload -d 'Do not load it'
complete -c tarnfw -n '__fish_seen_subcommand_from ranges' -l ipv6 -d 'IPv6 ranges'

set -l second list show create delete rename use
complete -c tarnfw -n "__fish_seen_subcommand_from profile; and not __fish_seen_subcommand_from $second" -a "$second"
complete -c tarnfw -n '__fish_seen_subcommand_from adapter service; and not __fish_seen_subcommand_from list' -a list
complete -c tarnfw -n '__fish_seen_subcommand_from country; and not __fish_seen_subcommand_from list ranges' -a 'list ranges'
complete -c tarnfw -n '__fish_seen_subcommand_from modules; and not __fish_seen_subcommand_from load unload' -a 'load unload'
complete -c tarnfw -n '__fish_seen_subcommand_from load unload' -a 'core nat'
complete -c tarnfw -n '__fish_seen_subcommand_from compile show delete rename use' -a '(tarnfw profile list 2>/dev/null)'
complete -c tarnfw -n '__fish_seen_subcommand_from ranges' -a '(tarnfw country list 2>/dev/null)'
