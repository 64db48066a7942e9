# Gives the stores of the services to their users. A staged installation leaves that to the machine that
# unpacks it: its build machine need not know the users.
set(stores_of_palinode /lumen/store/upnp /lumen/store/upnpm)
set(stores_of_palinode-pcp /lumen/store/pcp)
set(stores_of_lumen-web /lumen/store/web)
if("$ENV{DESTDIR}" STREQUAL "")
  foreach(user palinode palinode-pcp lumen-web)
    set(stores ${stores_of_${user}})
    execute_process(COMMAND chown ${user}:${user} ${stores} RESULT_VARIABLE failed ERROR_VARIABLE error)
    if(failed)
      # To be pasted into a shell.
      list(TRANSFORM stores REPLACE "(.+)" "'\\1'")
      list(JOIN stores " " stores)
      message(WARNING "The stores need their owner. Make the user ${user}, then run as root:\n"
                      "  chown ${user}:${user} ${stores}\n${error}")
    endif()
  endforeach()
endif()
