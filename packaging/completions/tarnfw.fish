# Completion of tarnfw(1) verbs, options and names for fish.

set -l verbs setup enable disable reload clear recover status compile query profile update adapter service \
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
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a query -d 'Say whether a port or a service is blocked'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a update -d 'Take vanished services out of the profiles'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a adapter -d 'List and rename adapters'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a service -d 'List, reserve and remove services'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a country -d 'List countries and their ranges'
complete -c tarnfw -n "not __fish_seen_subcommand_from $verbs" -a modules -d 'Load and unload kernel modules'

complete -c tarnfw -n '__fish_seen_subcommand_from setup enable disable reload clear recover update create delete rename use load unload reserve remove' \
    -s n -l dry-run -d 'Print what would be done'
complete -c tarnfw -n '__fish_seen_subcommand_from status' -l verify -d 'Compare the live rules with the profile'
complete -c tarnfw -n '__fish_seen_subcommand_from compile' -l no-state -d 'Without connection-state lines'
complete -c tarnfw -n '__fish_seen_subcommand_from compile' -x -l exempt -d 'Address left out of the connection-state accept'
complete -c tarnfw -n '__fish_seen_subcommand_from use' -l no-reload -d 'Do not load it'
complete -c tarnfw -n '__fish_seen_subcommand_from ranges' -l ipv6 -d 'IPv6 ranges'

set -l second list show create delete rename use
complete -c tarnfw -n "__fish_seen_subcommand_from profile; and not __fish_seen_subcommand_from $second" -a "$second"
complete -c tarnfw -n '__fish_seen_subcommand_from query; and not __fish_seen_subcommand_from port service' -a 'port service'
complete -c tarnfw -n '__fish_seen_subcommand_from adapter; and not __fish_seen_subcommand_from list rename' -a 'list rename'
complete -c tarnfw -n '__fish_seen_subcommand_from service; and not __fish_seen_subcommand_from query list reserve remove' -a 'list reserve remove'
complete -c tarnfw -n '__fish_seen_subcommand_from port' -x -l protocol -a 'tcp udp both' -d 'Protocol'
complete -c tarnfw -n '__fish_seen_subcommand_from port' -x -l direction -a 'dst src' -d 'Destination or source ports'
complete -c tarnfw -n '__fish_seen_subcommand_from query reserve' -x -l adapter -a '(tarnfw adapter list 2>/dev/null)' -d 'Adapter'
complete -c tarnfw -n '__fish_seen_subcommand_from reserve' -l allow -d 'Let it in'
complete -c tarnfw -n '__fish_seen_subcommand_from reserve' -l deny -d 'Keep it out'
complete -c tarnfw -n '__fish_seen_subcommand_from reserve; or begin; __fish_seen_subcommand_from adapter; and __fish_seen_subcommand_from rename; end' -l reload -d 'Load the active profile'
complete -c tarnfw -n '__fish_seen_subcommand_from country; and not __fish_seen_subcommand_from list ranges' -a 'list ranges'
complete -c tarnfw -n '__fish_seen_subcommand_from modules; and not __fish_seen_subcommand_from load unload' -a 'load unload'
complete -c tarnfw -n '__fish_seen_subcommand_from load unload' -a 'core nat'
complete -c tarnfw -n '__fish_seen_subcommand_from compile profile; and __fish_seen_subcommand_from compile show delete rename use' -a '(tarnfw profile list 2>/dev/null)'
complete -c tarnfw -n '__fish_seen_subcommand_from ranges' -a '(tarnfw country list 2>/dev/null)'
