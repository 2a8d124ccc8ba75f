// Has nothing of its own: it carries the headers that all unit tests share.
