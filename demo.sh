#!/usr/bin/env bash
# Shows the provider at work on a fresh Debian machine: ./demo.sh [--dialog] [--fresh] [FILE]
#
# Builds the provider, installs it with a virtual token in a Wine prefix of its own, has an ordinary CryptoAPI program
# enrol two keys on the token, sign FILE with the one and open FILE's envelope with the other, and checks it all with
# openssl. Run again, it works with the same keys and certificates.
#   --dialog  show the provider's PIN dialog and wait for a person to type the PIN
#   --fresh   start with a new token and a new certification authority
set -euo pipefail
caller_folder=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")"
root=$PWD

token_id=DEMO1
pin=246810
state=$root/build/demo       # the token and the certification authority: what a second run finds again
out=$root/out/demo           # what a run leaves
bin=$root/build/mingw/bin
export WINEPREFIX=$root/build/wine/demo

fail() { echo "demo: $*" >&2; exit 1; }
say() { printf '\n%s\n' "$*"; }
milliseconds() { echo $(($(date +%s%N) / 1000000)); }
windows_path() { local path=Z:$1; echo "${path//\//\\}"; }

# step TEXT COMMAND...: runs a step and accounts for it in one line; its output is shown when it fails.
step() {
    local what=$1 start output
    shift
    start=$(milliseconds)
    output=$("$@" 2>&1) || { echo "$output" >&2; fail "$what: failed"; }
    printf '  %-62s %6d ms\n' "$what" $(($(milliseconds) - start))
}

talvik() { "$root/scripts/wine-run" "$bin/talvik.exe" "$@" | tr -d '\r'; }

create_token() {
    mkdir -p "$state/tokens"
    talvik token list --json | grep -q "\"$token_id\"" ||
        talvik token create --id "$token_id" --label "Demonstration token" --pin "$pin"
}

# Three wrong PINs in the dialog lock the token for every later run.
refuse_locked_token() {
    ! talvik token show "$token_id" --json | grep -q '"attemptsLeft": 0,' ||
        fail "three wrong PINs have locked the token: ./demo.sh --fresh starts with a new one"
}

create_ca() {
    [ ! -f "$state/ca/ca.pem" ] || return 0
    rm -rf "$state/ca" "$state/ca.new"
    mkdir -p "$state/ca.new"
    openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days 3650 -subj "/O=Talvik Demonstration/CN=Throw-away CA" \
        -addext "keyUsage=critical,keyCertSign,cRLSign" -keyout "$state/ca.new/ca.key" -out "$state/ca.new/ca.pem"
    mv "$state/ca.new" "$state/ca"
}

# The authority's own certificate, for the chain.
store_ca() {
    talvik token show "$token_id" | grep -q "Throw-away CA" ||
        talvik token import-cert "$token_id" "$(windows_path "$state/ca/ca.pem")" --label "Throw-away CA" --pin "$pin"
}

# issue_certificate USAGE [OPTION...]: for the key that signed the request, or the one that an option names.
issue_certificate() {
    local usage=$1
    shift
    openssl req -inform DER -in "$state/request.der" -verify -noout || return
    printf '%s\n' "basicConstraints=CA:FALSE" "keyUsage=critical,$usage" "extendedKeyUsage=emailProtection" \
        >"$state/ca/extensions"
    openssl x509 -req -inform DER -in "$state/request.der" -CA "$state/ca/ca.pem" -CAkey "$state/ca/ca.key" \
        -set_serial "0x$(openssl rand -hex 15)" -days 825 -sha256 -extfile "$state/ca/extensions" "$@" \
        -outform DER -out "$state/certificate.der"
}

encrypt_to_recipient() {
    openssl x509 -inform DER -in "$state/recipient.der" -out "$out/recipient.pem"
    openssl cms -encrypt -binary -aes256 -in "$file" -outform DER -out "$out/envelope.p7m" "$out/recipient.pem"
}

failed() {
    refuse_locked_token
    fail "$1 failed; see $out for the provider's log"
}

# What the program asks for.
answer() {
    case $1 in
        ">issue signer")
            step "openssl: the CA checks the request and issues the certificate" \
                issue_certificate digitalSignature,nonRepudiation ;;
        ">issue recipient")
            step "openssl: the CA issues a certificate for the exchange key" \
                issue_certificate keyEncipherment -force_pubkey "$state/exchange-key.der" -keyform DER ;;
        ">encrypt")
            step "openssl cms -encrypt: the file, AES-256, for that certificate" encrypt_to_recipient ;;
        *) fail "the program asks for $1" ;;
    esac
}

# The program, with those at its other end whom it deals with.
run_program() {
    local patience=$1 line status=0
    coproc PROGRAM {
        timeout "$patience" scripts/wine-run "$bin/demo/talvik_demo.exe" "$(windows_path "$file")" \
            "$(windows_path "$state")" "$(windows_path "$out")"
    }
    local program=$PROGRAM_PID answers=${PROGRAM[0]} questions=${PROGRAM[1]}
    exec 3<&"$answers" 4>&"$questions"
    while IFS= read -r line <&3; do
        line=${line%$'\r'}
        case $line in
            ">"*) answer "$line" && echo answered >&4 ;;
            *) echo "$line" ;;
        esac
    done
    wait "$program" || status=$?
    exec 3<&- 4>&-
    [ "$status" -ne 124 ] || fail "no PIN within $patience seconds"
    [ "$status" -eq 0 ] || failed "the program"
}

verify() {
    openssl cms -verify -binary -inform DER -in "$out/signature.p7s" -content "$1" -CAfile "$out/ca.pem" -out /dev/null
}

changed_file_is_refused() {
    { cat "$file"; echo changed; } >"$state/changed"
    ! verify "$state/changed" || { echo "openssl accepted the signature for a changed file"; return 1; }
}

opened_is_the_file() { cmp "$file" "$out/opened"; }

# The subjects in the chain, one a line, written as RFC 2253 has it: openssl's own way changes from version to version.
chain_subjects() {
    local line certificate=
    openssl pkcs7 -inform DER -in "$out/chain.p7b" -print_certs | while IFS= read -r line; do
        case $line in
            *"BEGIN CERTIFICATE"*) certificate=$line ;;
            *"END CERTIFICATE"*) openssl x509 -noout -subject -nameopt RFC2253 <<<"$certificate"$'\n'"$line" ;;
            *) certificate+=$'\n'$line ;;
        esac
    done | sed 's/^subject= *//'
}
chain_holds_signer_and_ca() {
    local subjects
    subjects=$(chain_subjects)
    echo "$subjects"
    grep -q "^\(.*,\)\?CN=Talvik Demo Signer\(,.*\)\?$" <<<"$subjects" && grep -q "^CN=Throw-away CA," <<<"$subjects"
}

# cng_program OVERRIDE: with the system's own ncrypt.dll (b), or with the stand-in that lies beside the program (n).
cng_program() {
    TALVIK_DEMO_PIN=$pin WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe=;ncrypt=$1" timeout 120 \
        scripts/wine-run "$bin/ncrypt/talvik_cng_demo.exe" "$(windows_path "$file")" "$(windows_path "$out")" |
        tr -d '\r'
}
sign_with_cng() {
    local status=0
    cng_program b || status=$?
    [ "$status" -eq 3 ] || return "$status"
    echo "  (this CNG loads no key storage providers: a stand-in for that part of it does)"
    cng_program n
}

verify_pss() {
    openssl dgst -sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32 -keyform DER \
        -verify <(openssl rsa -RSAPublicKey_in -inform DER -in "$out/rsa-public.der" -pubout -outform DER 2>/dev/null) \
        -signature "$out/pss.sig" "$file"
}

verify_ecdsa() {
    openssl dgst -sha256 -keyform DER -verify "$out/ec-public.der" -signature "$out/ecdsa.sig" "$file"
}

finish() {
    cp "${logs:-}"/talvik_demo.exe/*.LOG "$out/" 2>/dev/null || true # of a failed run too
    wineserver -k 2>/dev/null || true
}

dialog=no fresh=no file=
for argument in "$@"; do
    case $argument in
        --dialog) dialog=yes ;;
        --fresh) fresh=yes ;;
        -h | --help) sed -n '2,8s/^# \{0,1\}//p' "$root/demo.sh"; exit 0 ;;
        -*) fail "unknown option $argument" ;;
        *) [ -z "$file" ] || fail "one FILE at a time"; file=$argument ;;
    esac
done
given=${file:-$root/README.md}
file=$(cd "$caller_folder" && realpath -e -- "$given" 2>/dev/null) || fail "no such file: $given"
if [ ! -f "$file" ] || [ ! -r "$file" ]; then fail "not a readable file: $file"; fi
case $file in
    "$out"/* | "$state"/*) fail "$file would go: each run starts with an empty out/demo; copy it elsewhere" ;;
esac

scripts/install-missing demo
if [ "$dialog" = yes ] && [ -z "${DISPLAY:-}" ]; then
    scripts/install-missing dialog
    export TALVIK_DEMO_OWN_DISPLAY=yes
    cd "$caller_folder"
    exec "$root/scripts/with-display" "$root/demo.sh" "$@"
fi

mkdir -p build
exec 9>build/demo.lock
flock -n 9 || fail "another demonstration is running"
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

export TALVIK_TOKEN_HOME
TALVIK_TOKEN_HOME=$(windows_path "$state/tokens")
[ "$fresh" = no ] || rm -rf "$state"
rm -rf "$out"
mkdir -p "$state" "$out"

say "Preparing (the first time takes some minutes)"
step "build" scripts/build TalvikCSP TalvikDSCLibrary talvik talvik_demo talvik_cng_demo ncrypt_stand_in
step "Wine prefix with the provider in its system folder" scripts/register-csp "$bin"
step "provider log at DEBUG" scripts/log-level 3
step "virtual token $token_id, PIN $pin" create_token
refuse_locked_token
step "throw-away certification authority" create_ca
step "the authority's certificate on the token" store_ca
cp "$state/ca/ca.pem" "$out/ca.pem"
# The log of the run itself: the folders are made in advance, since the log loses a line for each one that it makes.
logs=$(scripts/wine-temp)/Quorvel
rm -rf "$logs/talvik_demo.exe"
mkdir -p "$logs/talvik_demo.exe" "$logs/talvik_cng_demo.exe"

say "Signing $file, and opening what was encrypted from it"
if [ "$dialog" = yes ]; then
    scripts/wine-graphics "$([ "${TALVIK_DEMO_OWN_DISPLAY:-}" = yes ] && echo bare || echo x11)"
    echo "  The PIN dialog appears on display $DISPLAY: type $pin there and press Login."
    if [ "${TALVIK_DEMO_OWN_DISPLAY:-}" = yes ]; then
        echo "  There is no display here, so that one is invisible. From another terminal:"
        echo "    export DISPLAY=$DISPLAY XAUTHORITY=${XAUTHORITY:-}"
        echo "    import -window root dialog.png      # to see it"
        echo "    xdotool type $pin; xdotool key Return   # to answer it"
    fi
    run_program "${TALVIK_DEMO_PATIENCE:-600}"
else
    scripts/wine-graphics null
    export TALVIK_DEMO_PIN=$pin
    run_program "${TALVIK_DEMO_PATIENCE:-120}"
fi
cp "$logs"/talvik_demo.exe/*.LOG "$out/"

say "Signing it once more through CNG"
step "the provider in CNG's list" scripts/register-ksp
sign_with_cng || failed "the CNG program"

openssl x509 -inform DER -in "$state/signer.der" -out "$out/signer.pem"

say "Checking"
step "openssl cms -verify accepts the signature" verify "$file"
step "openssl cms -verify refuses it for a changed file" changed_file_is_refused
step "openssl dgst accepts the RSA-PSS signature" verify_pss
step "openssl dgst accepts the ECDSA signature" verify_ecdsa
step "openssl pkcs7 finds signer and authority in the chain" chain_holds_signer_and_ca
chain_subjects | sed 's/^/    /'
step "what was in the envelope is the file" opened_is_the_file
rm "$out/opened"

say "Left in out/demo"
(cd "$out" && wc -c -- * | sed '$d')
say "OK: $(basename "$file") is signed by keys on the token and the signatures verify; its envelope was opened by another key."
