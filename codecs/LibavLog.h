#pragma once

namespace kestrium {

// Sends what libavcodec and libswscale have to say (a size a codec refuses, a
// bitrate it lowers) to the server's log, each line headed by the name of the
// codec or scaler that said it, instead of to a console no one reads. Warnings
// and errors only. Safe to call from every user of the libraries, any number of
// times: the callback is set once for the process.
void routeLibavLog();

}  // namespace kestrium
