// Face analysis engine (see FaceEngine.h once it lands).
