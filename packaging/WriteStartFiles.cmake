# Part of the installation: writes the files that say how the agent (KEL_AGENT_PATH) is started,
# from the templates in "packaging" into "written". Each reader has its own rules for odd characters.
set(KEL_AGENT_EXEC "${KEL_AGENT_PATH}")
set(KEL_AGENT_UNIT_PATH "${KEL_AGENT_PATH}")
if(KEL_AGENT_PATH MATCHES "[^A-Za-z0-9/._+-]")
    # The bus reads escapes first, and then splits the line as a shell does.
    string(REPLACE "'" "'\\''" KEL_AGENT_EXEC "${KEL_AGENT_PATH}")
    string(REPLACE "\\" "\\\\" KEL_AGENT_EXEC "'${KEL_AGENT_EXEC}'")

    # systemd knows escapes in quotes, and names beginning with "%".
    string(REPLACE "\\" "\\\\" KEL_AGENT_UNIT_PATH "${KEL_AGENT_PATH}")
    string(REPLACE "\"" "\\\"" KEL_AGENT_UNIT_PATH "${KEL_AGENT_UNIT_PATH}")
    string(REPLACE "%" "%%" KEL_AGENT_UNIT_PATH "\"${KEL_AGENT_UNIT_PATH}\"")
endif()
configure_file("${packaging}/dbus/com.norvale.kel.IControl.service.in"
    "${written}/com.norvale.kel.IControl.service" @ONLY)
configure_file("${packaging}/systemd/kel-agent.service.in" "${written}/kel-agent.service" @ONLY)
