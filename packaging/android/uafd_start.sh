#!/system/bin/sh
# init starts services under the umask 077; the app would not reach the socket that the daemon binds.
umask 007
exec /system/bin/uafd
