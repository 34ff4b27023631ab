#!/usr/bin/env bash
# Makes the certificates the TLS tests use, fresh each run, into <dir>:
#   ca.pem / other-ca.pem          two CAs (the tests trust the first)
#   server.pem, server.key         CN=localhost, names localhost and 127.0.0.1, from ca
#   expired-server.pem/.key        the same names, expired in 2020
#   wrong-name.pem/.key            names only other.example
#   client.pem, client.key         CN=alice,O=Example Clients, from ca
#   expired-client.pem/.key        CN=old-alice, expired in 2020
#   stranger.pem/.key              CN=mallory, from other-ca
# Usage: make_certs.sh <dir>
set -euo pipefail
dir=${1:?usage: make_certs.sh <dir>}
mkdir -p "$dir"
cd "$dir"

key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }

make_ca() {
  key "$1.key"
  openssl req -x509 -new -key "$1.key" -subj "/CN=$2" -days 30 -out "$1.pem" \
    -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" 2>/dev/null
  mkdir -p "$1.db"
  : >"$1.db/index.txt"
  echo 1000 >"$1.db/serial"
  cat >"$1.cnf" <<CNF
[ca]
default_ca = this
[this]
dir = $dir/$1.db
database = \$dir/index.txt
serial = \$dir/serial
new_certs_dir = \$dir
certificate = $dir/$1.pem
private_key = $dir/$1.key
default_md = sha256
policy = anything
unique_subject = no
copy_extensions = copy
[anything]
commonName = supplied
organizationName = optional
CNF
}

# issue <ca> <name> <subject> <extensions> [<start> <end>]
issue() {
  local ca=$1 name=$2 subject=$3 extensions=$4
  key "$name.key"
  openssl req -new -key "$name.key" -subj "$subject" -addext "$extensions" -out "$name.csr" 2>/dev/null
  local dates=(-days 30)
  [ $# -ge 6 ] && dates=(-startdate "$5" -enddate "$6")
  openssl ca -batch -notext -config "$ca.cnf" -in "$name.csr" -out "$name.pem" "${dates[@]}" 2>/dev/null
  rm -f "$name.csr"
}

make_ca ca "TAVIX Test CA"
make_ca other-ca "Other Test CA"
server_names="subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1"
issue ca server "/CN=localhost" "$server_names"
issue ca expired-server "/CN=localhost" "$server_names" 20200101000000Z 20200102000000Z
issue ca wrong-name "/CN=other.example" "subjectAltName=DNS:other.example"
issue ca client "/O=Example Clients/CN=alice" "extendedKeyUsage=clientAuth"
issue ca expired-client "/CN=old-alice" "extendedKeyUsage=clientAuth" 20200101000000Z 20200102000000Z
issue other-ca stranger "/CN=mallory" "extendedKeyUsage=clientAuth"
