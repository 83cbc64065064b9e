namespace korvo {} // placeholder
