# Fails unless the README shows the program exactly as it stands here and is compiled.
file(READ ${README} readme)
file(READ ${PROGRAM} program)
string(FIND "${readme}" "${program}" place)
if(place EQUAL -1)
  message(FATAL_ERROR "${README} does not show ${PROGRAM}")
endif()
