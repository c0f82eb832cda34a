// placeholder until implemented
