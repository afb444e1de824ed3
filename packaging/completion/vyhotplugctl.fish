# fish completion for vyhotplugctl
function __vyhotplugctl_targets
    NO_COLOR=1 vyhotplugctl status 2>/dev/null | string match -r '^[a-z][a-z0-9]*'
end

complete -c vyhotplugctl -f
complete -c vyhotplugctl -n __fish_use_subcommand -a 'status show who set unset edit forget mount unmount eject watch users check help'
complete -c vyhotplugctl -n 'not __fish_use_subcommand' -a '(__vyhotplugctl_targets)'
complete -c vyhotplugctl -n '__fish_seen_subcommand_from set' -a 'share= comment= path= read-only= guest= hide-from-guests= sync= administrator= full= readers= blocked= hidden='
complete -c vyhotplugctl -n '__fish_seen_subcommand_from unset' -a 'share comment path read-only guest hide-from-guests sync administrator full readers blocked hidden'
complete -c vyhotplugctl -n '__fish_seen_subcommand_from status show who watch users check' -l json -d 'for programs'
complete -c vyhotplugctl -n '__fish_seen_subcommand_from status' -l all -d 'and what is known'
complete -c vyhotplugctl -n '__fish_seen_subcommand_from unmount' -l force -d 'detach it'
complete -c vyhotplugctl -n '__fish_seen_subcommand_from unmount eject set unset forget' -l wait -x -d 'seconds'
complete -c vyhotplugctl -n '__fish_seen_subcommand_from check' -l configuration -d 'the configuration alone'
