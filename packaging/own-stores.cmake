# Gives the stores of the daemon to its user. A staged installation leaves that to whoever unpacks
# it: its build machine need not know the user.
set(stores /lumen/store/upnp /lumen/store/upnpm)
if("$ENV{DESTDIR}" STREQUAL "")
  execute_process(COMMAND chown palinode:palinode ${stores} RESULT_VARIABLE failed ERROR_VARIABLE error)
  if(failed)
    # To be pasted into a shell.
    list(TRANSFORM stores REPLACE "(.+)" "'\\1'")
    list(JOIN stores " " stores)
    message(WARNING "The stores need their owner. Make the user palinode, then run as root:\n"
                    "  chown palinode:palinode ${stores}\n${error}")
  endif()
endif()
