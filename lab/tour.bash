# The tour of the demonstration, step by step; ./gateway reads this file. It uses router, host, eventually, start_gateway,
# last_words, and the variables name, bin, scratch, programs and overwrite from there.
# shellcheck shell=bash disable=SC2154  # those variables

wrong=0
seen=✓ unseen=✗
[[ $(locale charmap 2>/dev/null) == UTF-8 ]] || seen=ok unseen=FAILED
faint='' plain=''
if [[ -n $overwrite && -z ${NO_COLOR:-} ]]; then
    seen=$'\e[32m'$seen$'\e[0m' unseen=$'\e[31m'$unseen$'\e[0m' faint=$'\e[2m' plain=$'\e[0m'
fi

# Runs a step's command and shows what it prints, all of it when the step fails.
step() {  # what is shown, then the command that must succeed
    local output mark=$seen most=8
    if [[ -n $overwrite ]]; then printf '  . %s' "$1"; fi
    if ! output=$("${@:2}" 2>&1); then
        mark=$unseen most=100
        wrong=$((wrong + 1))
    fi
    printf '%s  %s %s\n' "$overwrite" "$mark" "$1"
    [[ -z $output ]] || head -n "$most" <<<"$output" | sed "s/^/      $faint/; s/\$/$plain/"
}

# Runs a command on a host, and prints both the command and what it says.
on() {  # host, command...
    printf '%s$ %s\n' "$1" "${*:2}"
    if [[ $1 == router ]]; then (router "$bin/$2" "${@:3}"); else host "$@"; fi 2>&1
}

# Prints what it reads, and is true when a line matches.
shows() { local text; text=$(cat); printf '%s\n' "$text"; grep -qE "$1" <<<"$text"; }

# With -i, because upnpc doubts that a WAN with a documentation address is connected. Without the lines that are the
# same whatever it does.
upnpc() { on lan1 upnpc -i -m eth0 "$@" | sed -E -e '2,5d' -e '/^( st:|List|Trying|Local LAN|Bytes|InternalIP|$)/d'; }

discover() {
    local text
    text=$(upnpc -s)
    grep -E '^lan1|^ desc|^Found|^ExternalIP' <<<"$text"
    grep -q "^Found .*IGD : http://192.0.2.1:2828/upnp/control/wanipconn-" <<<"$text" &&
        grep -q "^ExternalIPAddress = 198\.51\.100\.1$" <<<"$text"
}
map_port() { upnpc -e tour -a 192.0.2.2 8080 80 TCP | shows "is redirected to internal 192.0.2.2:8080"; }
unmap_port() { upnpc -d 80 TCP | shows "^UPNP_DeletePortMapping\(\) returned : 0$"; }

interfaces_have_roles() { on router tkctl upnp interface list | shows "wan0 +external"; }
mapping_is_listed() { on router tkctl upnp mappings | shows " 80 +192\.0\.2\.2:8080 .* tour "; }
mapping_was_used() { on router tkctl upnp mappings | shows " tour .*Z +[1-9][0-9]* +[1-9][0-9]*$"; }
no_mapping_is_listed() {
    local text
    text=$(on router tkctl upnp mappings) && printf '%s\n' "$text" && ! grep -q "192\.0\.2\.2:8080" <<<"$text"
}

serve_greeting() {
    (exec lab/lab exec "$name" lan1 lab/greeting serve 192.0.2.2 8080) &
    programs+=($!)
}
hear() { on "$1" lab/greeting hear "$2" "$3"; }
greeted() { hear "$@" | shows "^hello .*, this is the LAN$"; }
refused() { hear "$@" | shows "^no greeting from .*: (Connection refused|timed out)$" || [[ ${PIPESTATUS[1]} -eq 0 ]]; }

has_started() { if [[ ${started:-} == yes ]]; then interfaces_have_roles; else cat "$scratch/start.log"; last_words; false; fi; }

lab_tour() {
    echo "A router, two LAN hosts and two WAN hosts, each in a network namespace of its own"
    step "the lab is up: namespaces gw-$name-{router,lan1,lan2,wan,wan2}" lab/lab up "$name"
    start_gateway lan0 wan0 >"$scratch/start.log" 2>&1 && started=yes  # not in a step: that would be another shell
    step "the router runs routerd, which starts upnpd; lan0 is internal, wan0 is external" has_started
    if [[ -z ${started:-} ]]; then return; fi
    serve_greeting
    step "lan1 serves a greeting, which lan2 hears" eventually greeted lan2 192.0.2.2 8080
    step "a control point on lan1 discovers the gateway" eventually discover
    step "from the WAN there is no way to the server yet" refused wan 198.51.100.1 80
    step "the control point maps TCP port 80 of the router to the server" map_port
    step "the administrator sees who mapped what" mapping_is_listed
    step "a WAN host reaches the server through the mapping" greeted wan 198.51.100.1 80
    step "lan2 reaches it by the external address too" greeted lan2 198.51.100.1 80
    step "the administrator sees how much it was used" mapping_was_used
    step "the control point deletes the mapping" unmap_port
    step "the administrator sees that it is gone" no_mapping_is_listed
    step "that WAN host does not reach the server any more" refused wan 198.51.100.1 80
}
