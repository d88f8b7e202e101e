#!/usr/bin/env bash
# Writes the fuzzers' seed corpora into corpus/<fuzzer>/ (committed; run again
# only to change them). Needs protoc, a C++ compiler and Botan 2 (pkg-config).
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
corpus="$here/corpus"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

seed() {  # seed <fuzzer> <name> <printf format> [args...]
    local dir="$corpus/$1" name=$2
    shift 2
    mkdir -p "$dir"
    # shellcheck disable=SC2059
    printf -- "$@" >"$dir/$name"
}

encode() {  # encode <message> <text format>: the message's binary encoding on stdout
    printf '%s' "$2" | protoc --encode="domain.backend.zelkDlc.proto.$1" \
        -I "$root/backend/proto" "$root"/backend/proto/*.proto
}

rm -rf "$corpus"
challenge=0A1B2C3D4E5F60718293A4B5C6D7E8F9
container=$(head -c 96 /dev/zero | tr '\0' 'K' | base64 -w 64)

# Backend response bodies.
mkdir -p "$corpus/backend_response"
encode zelkDlcChallengeResponseType "tesmoChallenge: \"$challenge\"" \
    >"$corpus/backend_response/challenge"
encode zelkDlcResponseType "downloadContainer: \"${container//$'\n'/\\n}\" returnCode: \"0\"" \
    >"$corpus/backend_response/container"
encode zelkDlcResponseType 'returnCode: "17"' >"$corpus/backend_response/return_code_only"
# An unknown field (7, varint) before the challenge.
{ printf '\x38\x01'; cat "$corpus/backend_response/challenge"; } \
    >"$corpus/backend_response/unknown_field"
seed backend_response not_protobuf '<html><body>Bad Gateway</body></html>'

# Whole HTTP responses.
body=$(od -An -v -tx1 "$corpus/backend_response/challenge" | tr -d ' \n' | sed 's/../\\x&/g')
length=$(stat -c %s "$corpus/backend_response/challenge")
ok_header="HTTP/1.1 200 OK\r\nContent-Type: application/TTVI_CT_zelkDlcChallengeResponse_v3+proto\r\nContent-Length: $length\r\nConnection: close\r\n\r\n"
seed http_response challenge_200 "$ok_header$body"
seed http_response continue_then_200 "HTTP/1.1 100 Continue\r\n\r\n$ok_header$body"
seed http_response no_content_204 'HTTP/1.1 204 No Content\r\nDate: Sun, 22 Nov 2026 10:15:02 GMT\r\n\r\n'
seed http_response chunked_200 'HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n'
seed http_response multiple_choices_300 'HTTP/1.1 300 Multiple Choices\r\nLocation: /b\r\n\r\n'
seed http_response unauthorized_401 'HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Bearer\r\n\r\n'
seed http_response server_error_500 'HTTP/1.0 500 Internal Server Error\r\nContent-Type: text/html\r\n\r\n<h1>500</h1>'
seed http_response no_header_end 'HTTP/1.1 200 OK\r\nContent-Length: 10\r\n'
seed http_response no_digits 'HTTP/1.1 OK\r\n\r\n'
seed http_response not_http 'SSH-2.0-OpenSSH_9.2\r\n\r\n'
seed http_response signed_code 'HTTP/1.1 -20 Odd\r\n\r\nx'

# Invocation URLs.
for url in 'http://10.0.0.1:8443/a/b?x=1' 'https://h/p' 'http://h' \
    'https://backend.example.com:443/zelk/v3/challenge?vin=WKV0000000000001' \
    'http://[::1]:8080/dlc' 'http://h:/p' 'http://:80/p' 'http://h:99999/' 'ftp://h/p' 'h/p'; do
    name=$(printf '%s' "$url" | tr -c 'A-Za-z0-9' '_')
    seed url_parser "$name" '%s' "$url"
done

# Base64 texts of both alphabets.
seed base64 foo 'Zm9v'
seed base64 foo_line_feed 'Zm9v\n'
seed base64 foo_blank 'Zm 9v'
seed base64 fo_unpadded 'Zm8'
seed base64 f_padded 'Zg=='
seed base64 standard_fbff '+/8='
seed base64 url_safe_fbff '-_8='
seed base64 stops_at_invalid 'Zm9v!Zm9v'
seed base64 leading_padding '=Zm9v'
seed base64 lone_sextet 'Zm9vZ'
printf '%s\n' "$container" >"$corpus/base64/container_lines"
head -c 120 /dev/zero | tr '\0' '\373' | base64 -w 0 | tr '+/' '-_' >"$corpus/base64/url_safe_long"

# Challenges (32 hexadecimal characters).
seed challenge upper "$challenge"
seed challenge lower '%s' "${challenge,,}"
seed challenge mixed '0a1B2c3D4e5F60718293a4B5c6D7e8F9'
seed challenge short_31 '%s' "${challenge:0:31}"
seed challenge long_33 '%s0' "$challenge"
seed challenge not_hex '0A1B2C3D4E5F6071G293A4B5C6D7E8F9'

# Base certificates made by Botan.
mkdir -p "$corpus/certificate"
c++ -std=c++17 -O1 -o "$scratch/make_certificate_seeds" "$here/make_certificate_seeds.cpp" \
    $(pkg-config --cflags --libs botan-2)
"$scratch/make_certificate_seeds" "$corpus/certificate"

du -b -s "$corpus"/* 
