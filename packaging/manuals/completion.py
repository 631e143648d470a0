# SPDX-License-Identifier: Apache-2.0
"""Writes the bash completion of a program from what it says of itself.

usage: completion.py PROGRAM >COMPLETION
"""
import sys

import command_tree

HEAD = '''# bash completion for {name}; made from its table of commands
_{function}_modules()
{{
    local file
    for file in /prd/usr/fwupdate/controls/*.so; do
        [[ -e $file ]] || continue
        file=${{file##*/}}
        printf '%s\\n' "${{file%.so}}"
    done
}}

_{function}_complete()  # KIND [WORD...]
{{
    case $1 in
        words) mapfile -t COMPREPLY < <(compgen -W "${{*:2}}" -- "$current") ;;
        modules) mapfile -t COMPREPLY < <(compgen -W "$(_{function}_modules)" -- "$current") ;;
        files) mapfile -t COMPREPLY < <(compgen -f -- "$current"); compopt -o filenames ;;
        directories) mapfile -t COMPREPLY < <(compgen -d -- "$current"); compopt -o filenames ;;
        groups) mapfile -t COMPREPLY < <(compgen -g -- "$current") ;;
        commands) mapfile -t COMPREPLY < <(compgen -c -- "$current") ;;
    esac
}}

_{function}()
{{
    local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD-1]}}
    local place="" arguments=0 index word
    COMPREPLY=()
    for ((index = 1; index < COMP_CWORD; index++)); do
        word=${{COMP_WORDS[index]}}
        [[ $word == -- ]] && {{ _{function}_complete commands; return; }}
        case "$place:$word" in
'''

MIDDLE = '''            *:-*) ;;
            *) arguments=$((arguments + 1)) ;;
        esac
    done
'''


def value_kind(entry):
    return "words " + " ".join(entry.words) if entry.words else entry.completes


def place(command):
    return "/".join(command.path[1:])


def words_of(command):
    names = [name for entry in command.options for name in entry.names]
    return " ".join(names + [sub.path[-1] for sub in command.commands])


def enter_places(tree):
    """Cases that follow the commands named so far, and step over options' values."""
    for command in command_tree.all_commands(tree):
        for sub in command.commands:
            yield f"            {place(command)}:{sub.path[-1]}) place='{place(sub)}'; arguments=0 ;;"
        valued = [n for entry in command.options if entry.value for n in entry.names]
        if valued:
            patterns = "|".join(f"{place(command)}:{name}" for name in valued)
            yield f"            {patterns}) index=$((index + 1)) ;;"


def complete_values(program, tree):
    yield '    case "$place:$previous" in'
    for command in command_tree.all_commands(tree):
        for entry in command.options:
            if entry.value:
                patterns = "|".join(f"{place(command)}:{name}" for name in entry.names)
                kind = value_kind(entry)
                action = f"_{function_name(program)}_complete {kind}; " if kind else ""
                yield f"        {patterns}) {action}return ;;"
    yield "    esac"


def complete_arguments(program, tree):
    """An argument's own completion; its options when the word begins with a dash. Where a command could
    stand, the commands."""
    function = function_name(program)
    yield "    if [[ $current != -* ]]; then"
    yield '        case "$place:$arguments" in'
    for command in command_tree.all_commands(tree):
        for number, entry in enumerate(command.arguments):
            kind = value_kind(entry)
            if kind and not command.commands:
                count = "*" if entry.many else number
                yield f"            {place(command)}:{count}) _{function}_complete {kind}; return ;;"
    yield "        esac"
    yield "    fi"
    yield '    case "$place" in'
    for command in command_tree.all_commands(tree):
        yield f'        "{place(command)}") _{function}_complete words {words_of(command)} ;;'
    yield "    esac"


def function_name(program):
    return program.replace("-", "_")


def completion(program, tree):
    lines = list(enter_places(tree))
    text = HEAD.format(name=program, function=function_name(program)) + "\n".join(lines) + "\n" + MIDDLE
    text += "\n".join([*complete_values(program, tree), *complete_arguments(program, tree)])
    return text + f"\n}}\ncomplete -F _{function_name(program)} {program}\n"


def main():
    tree = command_tree.read(sys.argv[1])
    sys.stdout.write(completion(tree.path[0], tree))


if __name__ == "__main__":
    main()
