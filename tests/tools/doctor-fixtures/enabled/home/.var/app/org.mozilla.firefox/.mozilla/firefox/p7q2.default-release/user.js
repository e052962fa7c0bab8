/* user.js: read at every start, after prefs.js */
user_pref("media.webrtc.camera.allow-pipewire", true);
