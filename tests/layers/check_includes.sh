#!/usr/bin/env bash
# Fails when a source file includes from a layer it may not see:
#
#   platform <- protocol <- client <- entry (src/library.cpp) -> rpc client, server core, engines
#   protocol <- server core <- engines;  protocol <- rpc client;  server core <- rpc stub
#
# The protocol is the part of src/frame/ without connection state; the rest of src/frame/ and the
# subsystems beside it are the client.
set -euo pipefail
cd "$1"

protocol='IBookServer|server_methods|activation|exchange|records|blocks|catalogue|sql_text'
client_frame='connection|handles|rows|db_work'
subsystems='users|books|contents|transfer'

status=0

# refuse DESCRIPTION REGEX FILES...: every quoted or angled include matching REGEX is a violation.
refuse() {
  local what=$1 pattern=$2
  shift 2
  [ $# -gt 0 ] || return 0
  local hits
  hits=$(grep -HnE "^[[:space:]]*#[[:space:]]*include[[:space:]]*[\"<]($pattern)" "$@" || true)
  if [ -n "$hits" ]; then
    echo "$what:"
    echo "$hits" | sed 's/^/  /'
    status=1
  fi
}

# Source and header files under the given folders (or the given files), sorted.
files() { find "$@" -type f \( -name '*.h' -o -name '*.cpp' -o -name '*.c' \) 2>/dev/null | sort; }

mapfile -t src_all < <(files src | grep -vx 'src/library.cpp')
mapfile -t platform < <(files src/platform)
mapfile -t protocol_files < <(files src/frame | grep -E "^src/frame/($protocol)\.(h|cpp)$")
mapfile -t server_all < <(files server)
mapfile -t server_core < <(files server/core server/engine)
mapfile -t server_sql < <(files server/sql)
mapfile -t server_engines < <(files server/sqlite)
mapfile -t rpc_client < <(files rpc/remote_book_server.h rpc/remote_book_server.cpp \
                                rpc/remote_link.h rpc/remote_link.cpp rpc/client_config.h \
                                rpc/client_config.cpp)
mapfile -t rpc_all < <(files rpc)

# Every file the rules speak of must be there: a rule over no files checks nothing.
for group in src_all platform protocol_files server_core server_sql server_engines rpc_client; do
  declare -n list=$group
  if [ ${#list[@]} -eq 0 ]; then
    echo "no files for $group under $PWD"
    exit 1
  fi
done

refuse "src/ (but the entry) includes the servers or the wire" 'rpc/|server/|sql/' "${src_all[@]}"
refuse "the platform includes from the layers above it" \
  "frame/|$(echo "$subsystems" | sed 's#|#/|#g')/" "${platform[@]}"
refuse "the protocol includes the client" \
  "frame/($client_frame)\.h|$(echo "$subsystems" | sed 's#|#/|#g')/" "${protocol_files[@]}"
refuse "the server includes the client or the wire" \
  "frame/($client_frame)\.h|$(echo "$subsystems" | sed 's#|#/|#g')/|rpc/|src/" "${server_all[@]}"
refuse "the server core includes an engine" 'server/sqlite/' "${server_core[@]}"
refuse "an engine includes the server core" 'server/core/' "${server_engines[@]}"
refuse "the SQL translator includes beyond itself and the platform" 'frame/|server/' "${server_sql[@]}"
refuse "the network proxy includes the server or the client" \
  "server/|frame/($client_frame)\.h|$(echo "$subsystems" | sed 's#|#/|#g')/" "${rpc_client[@]}"
refuse "the wire includes the client or an engine" \
  "server/sqlite/|frame/($client_frame)\.h|$(echo "$subsystems" | sed 's#|#/|#g')/" \
  "${rpc_all[@]}"

if [ $status -eq 0 ]; then
  echo "includes keep to their layers (${#src_all[@]} library, ${#server_all[@]} server, ${#rpc_all[@]} wire files)"
fi
exit $status
