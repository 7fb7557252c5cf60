#!/usr/bin/env bash
# The wire library (linked by tervainctl and the client) must stay free of process, spool and
# desktop code: its files may include only each other, besides system headers.
set -euo pipefail
cd "$1"
wire='core/(base64|json_writer|line_split_buffer|reply|request_members|socket_io|unique_fd|errno_or|agent_wire|json)\.h|vsock/tervain_vsock\.h'
files=(src/core/{base64,json_writer,line_split_buffer,reply,request_members,socket_io,unique_fd}.{h,cpp}
       src/core/agent_wire.h src/core/json.h src/core/errno_or.h src/core/posix/pipe_*.cpp
       src/vsock/tervain_vsock.h src/vsock/*.c)
bad=$(grep -nE '#include "' "${files[@]}" | grep -vE "#include \"($wire)\"" || true)
if [[ -n "$bad" ]]; then
  echo "the wire library includes code outside it:" >&2
  echo "$bad" >&2
  exit 1
fi
