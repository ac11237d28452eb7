#!/bin/sh
# i386-run.sh PROGRAM ARGUMENT...: runs a program for i386 on a kernel that can, with the libraries of Debian's cross
# compiler, behind those of LD_LIBRARY_PATH.
folder=/usr/i686-linux-gnu/lib
exec $folder/ld-linux.so.2 --library-path "${LD_LIBRARY_PATH:+$LD_LIBRARY_PATH:}$folder" "$@"
