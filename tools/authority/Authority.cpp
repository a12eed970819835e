namespace norvauthority {}
