# What the commands of a page find: sourced by run_page.py, with $world set.
# /opt/kelm and the like lie below $world: the runner puts it before the paths in the page.
export HOME=$world/home PATH=$world/bin:$PATH TERM=xterm-256color KELM_RUN_DIR=$world/run
export PYTHONDONTWRITEBYTECODE=1
stty cols 100 rows 30
unset KELM_INSTALL_DIR DISPLAY
cd "$world/repository" || exit 1

install_kelm() {
    command cmake --install build/release --prefix "$world/opt/kelm" >"$world/install.log"
}

# Three simulated devices, and the environment in which a reader would go on.
start_service() {
    [ -d "$world/opt/kelm" ] || install_kelm || return
    export KELM_INSTALL_DIR=$world/opt/kelm PATH=$world/opt/kelm/bin:$PATH
    echo '{ "fake_device_settings": { "enable_fake_device": true } }' >~/.kelm_service.config
    kelmdaemon >~/service.log 2>&1 &
    kelmctl wait-ready >/dev/null
}

# Ctrl-C after so many seconds, if the command still runs, which is as good an end as its own.
bounded() {
    timeout --foreground --kill-after 10 --preserve-status -s INT "$@"
    case $? in 0 | 130) ;; *) return 1 ;; esac
}

# The line of the page that comes next, and how it has ended.
at() { printf '\n@@at %s\n' "$1"; }
ended() { [ "$1" -eq 0 ] || { printf '\n@@failed %s\n' "$1"; exit 1; }; }
