#!/bin/sh
# Run on the device by the script module: writes its argument's file.
echo "script ran with $# argument" > "$1"
