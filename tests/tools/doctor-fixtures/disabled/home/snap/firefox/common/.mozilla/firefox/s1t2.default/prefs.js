// Mozilla User Preferences
user_pref("browser.startup.page", 3);
