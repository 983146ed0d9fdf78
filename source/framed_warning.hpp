// The frame around warnings that must catch the eye.
#pragma once

#define KESTAL_WARNING_FRAME "\n-=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=-\n"

// A format, framed; ends with a line end.
#define KESTAL_FRAMED(format) KESTAL_WARNING_FRAME format KESTAL_WARNING_FRAME
